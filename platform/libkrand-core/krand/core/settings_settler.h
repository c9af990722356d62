#ifndef KRAND_CORE_SETTINGS_SETTLER_H_
#define KRAND_CORE_SETTINGS_SETTLER_H_

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "krand/core/settings_copy.h"
#include "krand/core/settings_database.h"
#include "krand/core/transaction_gate.h"

namespace krand::core {

// Settles an open store: brings the log into the file, then tells the witness how far the store has
// come. What is settled no damage to the log can undo. A thread of its own does so within a second
// of a change, so that the change waits for nothing, and keeps the copy young. Any thread may call.
class SettingsSettler final {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::milliseconds kDelay{500};
  static constexpr std::chrono::seconds kRetryDelay{1};

  // Both must outlive it. No thread runs yet.
  SettingsSettler(const std::string& store, TransactionGate& gate, SettingsDatabase& database);
  // After Stop, if there was a Start and the process goes on.
  ~SettingsSettler();
  SettingsSettler(const SettingsSettler&) = delete;
  SettingsSettler& operator=(const SettingsSettler&) = delete;

  // Runs the thread, which settles once without being told; returns when it waits for that.
  void Start();
  // Once; the thread has ended when it returns.
  void Stop();

  // There is something to settle.
  void NoteChange();
  // Settles now. Throws SettingsFailure when it cannot; the thread tries again then.
  void Settle();
  // Renews the copy when it is due.
  void KeepCopy();

 private:
  void Run();
  // False when it failed, which is logged.
  bool TryAll();

  // Constant after construction.
  const std::string store_;
  const SettingsCopy copy_;
  TransactionGate& gate_;
  SettingsDatabase& database_;

  // Held while settling, outside the gate.
  std::mutex settling_;
  // Guarded by settling_.
  std::optional<int64_t> settled_;  // number of the last change that is
  std::string last_failure_;

  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_.
  std::optional<Clock::time_point> due_;
  bool running_ = false;
  bool stopping_ = false;

  std::thread thread_;
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_SETTLER_H_

#ifndef KRAND_CORE_TRANSACTION_GATE_H_
#define KRAND_CORE_TRANSACTION_GATE_H_

#include <condition_variable>
#include <mutex>
#include <thread>

namespace krand::core {

// Lets one thread at a time at the store, and keeps all others out from the moment a thread takes
// the gate for a transaction until it gives it back.
class TransactionGate final {
 public:
  using Lock = std::unique_lock<std::mutex>;

  // Waits for the gate; the caller is alone as long as it keeps the lock.
  Lock Enter();

  // All three need the lock from Enter.
  bool IsTakenByThisThread() const { return taken_ && owner_ == std::this_thread::get_id(); }
  void Take();
  void GiveBack();

 private:
  std::mutex mutex_;
  std::condition_variable given_back_;
  // Guarded by mutex_.
  bool taken_ = false;
  std::thread::id owner_;
};

}  // namespace krand::core

#endif  // KRAND_CORE_TRANSACTION_GATE_H_

#include "krand/core/settings_settler.h"

#include <ctime>

#include "krand/core/settings_failure.h"
#include "tevra/core/logger.h"

namespace krand::core {

SettingsSettler::SettingsSettler(const std::string& store, TransactionGate& gate,
                                 SettingsDatabase& database)
    : store_(store), copy_(store), gate_(gate), database_(database) {}

SettingsSettler::~SettingsSettler() {
  if (thread_.joinable()) thread_.detach();  // a process may end with its store open
}

void SettingsSettler::Start() {
  std::unique_lock<std::mutex> lock(mutex_);
  due_ = Clock::now() + kDelay;
  thread_ = std::thread([this] { Run(); });
  // Until the thread waits: a process that forks right behind this leaves its child no lock that a
  // thread which is still being set up would hold.
  changed_.wait(lock, [this] { return running_; });
}

void SettingsSettler::Stop() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void SettingsSettler::NoteChange() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (due_) return;
  due_ = Clock::now() + kDelay;
  changed_.notify_all();
}

void SettingsSettler::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  running_ = true;
  changed_.notify_all();
  while (!stopping_) {
    if (!due_) {
      changed_.wait(lock);
    } else if (Clock::now() < *due_) {
      changed_.wait_until(lock, *due_);
    } else {
      due_.reset();
      lock.unlock();
      const bool done = TryAll();
      lock.lock();
      if (!done && !due_) due_ = Clock::now() + kRetryDelay;
    }
  }
}

bool SettingsSettler::TryAll() {
  std::string failure;
  try {
    Settle();
    KeepCopy();
  } catch (const std::exception& error) {
    failure = error.what();
  }
  const std::lock_guard<std::mutex> lock(settling_);
  if (!failure.empty() && failure != last_failure_) {
    tevra::core::Logger::GetLogger("krand")->Error("Settings: %s", failure.c_str());
  }
  last_failure_ = failure;
  return failure.empty();
}

void SettingsSettler::Settle() {
  const std::lock_guard<std::mutex> settling(settling_);
  std::optional<SettingsManifest> manifest;
  {
    const TransactionGate::Lock lock = gate_.Enter();
    manifest = database_.Manifest();
    if (settled_ == manifest->change) return;
    manifest = database_.WriteBack();
    if (manifest) database_.BeginLog();
  }
  if (!manifest) {
    throw SettingsFailure(store_ +
                          ": another process reads it and keeps its log from being emptied");
  }
  database_.Testify(*manifest);
  settled_ = manifest->change;
}

void SettingsSettler::KeepCopy() {
  const std::lock_guard<std::mutex> settling(settling_);
  if (settled_.value_or(0) == 0 || !copy_.IsDue(time(nullptr))) return;
  copy_.Make([this](const std::string& name) {
    const TransactionGate::Lock lock = gate_.Enter();
    database_.CopyTo(name);
  });
}

}  // namespace krand::core

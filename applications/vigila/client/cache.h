#ifndef VIGILA_CLIENT_CACHE_H_
#define VIGILA_CLIENT_CACHE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "tevra/osa/mutex.h"
#include "tevra/osa/time.h"
#include "vigila/client/key_ptr_wrapper.h"

namespace vigila::client {

// Executed commands of one class, found again by their arguments for as long as they go on being
// asked for. An entry lives for an idle time that every hit starts anew; nothing else bounds the
// cache. Owns the commands.
//
// Any thread may call; no operation holds the lock while the server is asked. Time is the given
// clock's, which should be monotonic.
template <typename T>
class Cache {
 public:
  // `clock` is borrowed and must outlive the cache.
  Cache(const tevra::osa::TimeSpan& lifetime, const tevra::osa::ITimeSource& clock)
      : lifetime_(lifetime), clock_(clock) {}
  virtual ~Cache() = default;
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;

  // Copies the answer to an equal question and renews the entry, or returns false and leaves
  // `answer` alone. The copy is made under the lock: the moment it is released, a flush may delete
  // the stored command.
  bool FindLive(const typename T::Key& question, typename T::Answer& answer)
      TEVRA_EXCLUDES(mutex_) {
    tevra::osa::MutexAutoLock lock(mutex_, -1, true);
    const auto found = entries_.find(question);
    if (found == entries_.end()) return Counted(misses_, false);
    const tevra::osa::TimeStruct now = Now();
    // Deliberate: an expired entry is a miss here and stays for the pruning that follows a miss.
    if (IsExpired(found->second, now)) return Counted(misses_, false);
    found->second.stamp = now;
    answer = found->second.command->GetAnswer();
    return Counted(hits_, true);
  }

  // How often FindLive found an answer, and how often it did not.
  uint64_t Hits() const { return hits_.load(std::memory_order_relaxed); }
  uint64_t Misses() const { return misses_.load(std::memory_order_relaxed); }

  // Erases every expired entry.
  void Prune() TEVRA_EXCLUDES(mutex_) {
    const tevra::osa::TimeStruct now = Now();
    tevra::osa::MutexAutoLock lock(mutex_, -1, true);
    std::erase_if(entries_, [&](const auto& entry) { return IsExpired(entry.second, now); });
  }

  // To be read before the server is asked and handed to Store with the answer.
  uint64_t Generation() const TEVRA_EXCLUDES(mutex_) {
    tevra::osa::MutexAutoLock lock(mutex_, -1, true);
    return generation_;
  }

  // Keeps an executed command, unless the cache was cleared since `generation` was read: an answer
  // from before a change must not come to life after it.
  void Store(std::unique_ptr<const T> command, uint64_t generation) TEVRA_EXCLUDES(mutex_) {
    tevra::osa::MutexAutoLock lock(mutex_, -1, true);
    if (generation != generation_) return;
    // Deliberate: of two equal questions asked at once the first answer stays; the second one only
    // renews it.
    Entry& entry = entries_[KeyPtrWrapper<T>(command.get())];
    if (!entry.command) entry.command = std::move(command);
    entry.stamp = Now();
  }

  void Clear() TEVRA_EXCLUDES(mutex_) {
    tevra::osa::MutexAutoLock lock(mutex_, -1, true);
    entries_.clear();
    ++generation_;
  }

  std::size_t Size() const TEVRA_EXCLUDES(mutex_) {
    tevra::osa::MutexAutoLock lock(mutex_, -1, true);
    return entries_.size();
  }

 private:
  struct Entry {
    std::unique_ptr<const T> command;
    tevra::osa::TimeStruct stamp;
  };

  // Written under the lock, read without.
  using Counter = std::atomic<uint64_t>;

  bool Counted(Counter& counter, bool found) TEVRA_REQUIRES(mutex_) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return found;
  }
  tevra::osa::TimeStruct Now() const {
    tevra::osa::TimeStruct now;
    clock_.GetTime(now);
    return now;
  }
  bool IsExpired(const Entry& entry, const tevra::osa::TimeStruct& now) const {
    tevra::osa::TimeStruct end = entry.stamp;
    end += lifetime_.AsMicroseconds();
    return now >= end;
  }

  const tevra::osa::TimeSpan lifetime_;
  const tevra::osa::ITimeSource& clock_;

  mutable tevra::osa::Mutex mutex_;
  // A key points to the command of its own entry.
  std::map<KeyPtrWrapper<T>, Entry, std::less<>> entries_ TEVRA_GUARDED_BY(mutex_);
  // Counts the clears.
  uint64_t generation_ TEVRA_GUARDED_BY(mutex_) = 0;
  Counter hits_{0};
  Counter misses_{0};
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_CACHE_H_

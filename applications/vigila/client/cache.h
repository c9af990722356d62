#ifndef VIGILA_CLIENT_CACHE_H_
#define VIGILA_CLIENT_CACHE_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "tevra/interfaces/answer_stamp.h"
#include "tevra/osa/mutex.h"
#include "tevra/osa/time.h"
#include "vigila/client/key_ptr_wrapper.h"

namespace vigila::client {

// Executed commands of one class, found again by their arguments for as long as they go on being
// asked for and their server has not taken the answer back. An entry lives for an idle time that
// every hit starts anew; nothing else bounds the cache. Owns the commands.
//
// Any thread may call. No operation holds the lock while the server is asked, nor for longer than a
// look-up or a few dozen erasures take. Time is the given clock's, which should be CLOCK_BOOTTIME:
// the servers' revocation pages are written by it.
template <typename T>
class Cache {
 public:
  // The time of the last store or hit, and beside it what the cache needs to do without a walk over
  // all entries: the neighbours in order of last use.
  struct Entry final : tevra::osa::TimeStruct {
    Entry(std::unique_ptr<const T>&& kept, tevra::interfaces::AnswerStamp&& stamp)
        : command(std::move(kept)), validity(std::move(stamp)) {}
    tevra::osa::TimeStruct& last_use() { return *this; }
    const tevra::osa::TimeStruct& last_use() const { return *this; }

    const std::unique_ptr<const T> command;
    const tevra::interfaces::AnswerStamp validity;
    Entry* older = nullptr;
    Entry* newer = nullptr;
  };
  using Entries = std::map<KeyPtrWrapper<T>, Entry, std::less<>>;

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
    return Find(question, answer);
  }

  // Likewise, for a question that goes to the server if it is missed: a miss erases every expired
  // entry, at a cost that depends on their number and not on that of the living ones.
  bool FindLiveOrPrune(const typename T::Key& question, typename T::Answer& answer)
      TEVRA_EXCLUDES(mutex_) {
    tevra::osa::TimeStruct now;
    {
      tevra::osa::MutexAutoLock lock(mutex_, -1, true);
      if (Find(question, answer)) return true;
      now = Now();
      if (!HasExpired(now)) return false;
    }
    while (PruneSome(now)) {
    }
    return false;
  }

  // How often an answer was found.
  uint64_t Hits() const { return hits_.load(std::memory_order_relaxed); }

  // To be read before the server is asked and handed to Store with the answer.
  uint64_t Generation() const { return generation_.load(std::memory_order_acquire); }

  // Keeps an executed command for as long as `validity` holds, unless the cache was cleared since
  // `generation` was read: an answer from before a change must not come to life after it.
  void Store(std::unique_ptr<const T> command, uint64_t generation,
             tevra::interfaces::AnswerStamp&& validity) TEVRA_EXCLUDES(mutex_) {
    typename Entries::node_type revoked;  // destroyed when the lock is free again
    tevra::osa::MutexAutoLock lock(mutex_, -1, true);
    if (generation != generation_.load(std::memory_order_relaxed)) return;
    // As a rule the question is the one that was missed last, and need not be searched for again.
    const KeyPtrWrapper<T> key(command.get());
    auto place = entries_.try_emplace(gap_, key, std::move(command), std::move(validity));
    const tevra::osa::TimeStruct now = Now();
    if (command != nullptr) {  // it was not taken, for there is an answer
      // Deliberate: of two equal questions asked at once the first answer stays; the second one
      // only renews it. An answer that was taken back is as good as gone and makes room.
      if (Holds(place->second.validity, now)) return Renew(place->second, now);
      gap_ = std::next(place);
      Unlink(place->second);
      revoked = entries_.extract(place);
      place = entries_.try_emplace(gap_, key, std::move(command), std::move(validity));
    }
    place->second.last_use() = now;
    Link(place->second);
  }

  void Clear() TEVRA_EXCLUDES(mutex_) {
    Entries cleared;  // destroyed when the lock is free again
    tevra::osa::MutexAutoLock lock(mutex_, -1, true);
    cleared.swap(entries_);
    gap_ = entries_.end();
    oldest_ = newest_ = nullptr;
    generation_.store(generation_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  }

  std::size_t Size() const TEVRA_EXCLUDES(mutex_) {
    tevra::osa::MutexAutoLock lock(mutex_, -1, true);
    return entries_.size();
  }

 private:
  // Others may look up between two batches.
  static constexpr std::size_t kBatch = 16;

  bool Find(const typename T::Key& question, typename T::Answer& answer) TEVRA_REQUIRES(mutex_) {
    const auto found = entries_.lower_bound(question);
    if (found == entries_.end() || question < found->first) {
      gap_ = found;
      return false;
    }
    Entry& entry = found->second;
    const tevra::osa::TimeStruct now = Now();
    // Deliberate: an expired entry is a miss and stays for the pruning.
    if (IsExpired(entry, now) || !Holds(entry.validity, now)) return false;
    answer = entry.command->GetAnswer();
    Renew(entry, now);
    hits_.store(hits_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
  }
  bool HasExpired(const tevra::osa::TimeStruct& now) const TEVRA_REQUIRES(mutex_) {
    return oldest_ != nullptr && IsExpired(*oldest_, now);
  }
  // Erases a batch of what has expired; whether there is more.
  bool PruneSome(const tevra::osa::TimeStruct& now) TEVRA_EXCLUDES(mutex_) {
    std::array<typename Entries::node_type, kBatch> expired;  // destroyed when the lock is free
    tevra::osa::MutexAutoLock lock(mutex_, -1, true);
    for (auto& node : expired) {
      if (!HasExpired(now)) return false;
      const auto place = entries_.find(oldest_->command->GetKey());
      Unlink(*oldest_);
      gap_ = entries_.end();
      node = entries_.extract(place);
    }
    return HasExpired(now);
  }

  void Renew(Entry& entry, const tevra::osa::TimeStruct& now) TEVRA_REQUIRES(mutex_) {
    Unlink(entry);
    entry.last_use() = now;
    Link(entry);
  }
  void Unlink(Entry& entry) TEVRA_REQUIRES(mutex_) {
    (entry.older != nullptr ? entry.older->newer : oldest_) = entry.newer;
    (entry.newer != nullptr ? entry.newer->older : newest_) = entry.older;
  }
  // At the end, unless the clock has been set back.
  void Link(Entry& entry) TEVRA_REQUIRES(mutex_) {
    Entry* older = newest_;
    while (older != nullptr && entry.last_use() < older->last_use()) older = older->older;
    entry.older = older;
    entry.newer = older != nullptr ? older->newer : oldest_;
    (entry.older != nullptr ? entry.older->newer : oldest_) = &entry;
    (entry.newer != nullptr ? entry.newer->older : newest_) = &entry;
  }

  tevra::osa::TimeStruct Now() const {
    tevra::osa::TimeStruct now;
    clock_.GetTime(now);
    return now;
  }
  bool IsExpired(const Entry& entry, const tevra::osa::TimeStruct& now) const {
    tevra::osa::TimeStruct end = entry.last_use();
    end += lifetime_.AsMicroseconds();
    return now >= end;
  }
  static bool Holds(const tevra::interfaces::AnswerStamp& validity,
                    const tevra::osa::TimeStruct& now) {
    return validity.Holds(static_cast<uint64_t>(now.seconds) * 1'000'000'000 +
                          static_cast<uint64_t>(now.microseconds) * 1'000);
  }

  const tevra::osa::TimeSpan lifetime_;
  const tevra::osa::ITimeSource& clock_;

  mutable tevra::osa::Mutex mutex_;
  // A key points to the command of its own entry.
  Entries entries_ TEVRA_GUARDED_BY(mutex_);
  // Where the question that was missed last belongs, unless others were taken out or in since.
  typename Entries::iterator gap_ TEVRA_GUARDED_BY(mutex_) = entries_.end();
  // The ends of the list of all entries in order of last use.
  Entry* oldest_ TEVRA_GUARDED_BY(mutex_) = nullptr;
  Entry* newest_ TEVRA_GUARDED_BY(mutex_) = nullptr;
  // Written under the lock, read without. The first counts the clears.
  std::atomic<uint64_t> generation_{0};
  std::atomic<uint64_t> hits_{0};
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_CACHE_H_

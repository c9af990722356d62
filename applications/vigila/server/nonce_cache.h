#ifndef VIGILA_SERVER_NONCE_CACHE_H_
#define VIGILA_SERVER_NONCE_CACHE_H_

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>

#include "tevra/osa/mutex.h"
#include "tevra/osa/time.h"
#include "vigila/contract/limits.h"

namespace vigila::server {

// The protection against replayed digests: the nonces issued to HTTP clients and those that
// web-service clients have used, each for 300 seconds from its creation. Holds at most 1024 entries
// after each expiry pass, 1025 between two.
//
// Contract: both kinds are known to each other, so an issued nonce is used up for a web-service
// logon, and one that a web-service client has used passes for issued.
//
// Any thread may call.
class NonceCache {
 public:
  static constexpr std::size_t kMaxEntries = 1024;
  static constexpr int kLifetimeSecs = contract::kNonceLifetimeSecs;

  // `time_source` is borrowed and must outlive the cache.
  explicit NonceCache(tevra::osa::ITimeSource* time_source);
  virtual ~NonceCache();
  NonceCache(const NonceCache&) = delete;
  NonceCache& operator=(const NonceCache&) = delete;

  // True when `nonce` is known. Otherwise it is known from now on, and the answer is false.
  bool Has(const std::string& nonce);
  // True means reject: the nonce is unknown, or the hexadecimal request count `nc` is not greater
  // than every one accepted for it. False means accept, and the count is recorded.
  bool CheckNonceAndCount(const std::string& nonce, const std::string& nc);

  // What the two questions are made of, for a caller that holds the mutex.
  struct Entry {
    tevra::osa::TimeStruct created;
    uint64_t count = 0;  // the greatest one accepted
  };
  using Entries = std::unordered_map<std::string, Entry>;
  tevra::osa::Mutex& GetMutex() TEVRA_THREAD_ATTRIBUTE(lock_returned(mutex_)) { return mutex_; }
  const Entries& GetEntries() const TEVRA_REQUIRES(mutex_) { return entries_; }
  // The end of the entries for an unknown nonce.
  Entries::iterator Find(const std::string& nonce) TEVRA_REQUIRES(mutex_) {
    return entries_.find(nonce);
  }
  // Removes what has expired, and the oldest entry of more than kMaxEntries.
  void CheckExpire() TEVRA_REQUIRES(mutex_);
  // For an entry that was found. True means reject; else the count is recorded.
  bool CheckCount(Entries::iterator entry, const std::string& nc) TEVRA_REQUIRES(mutex_);

 private:
  // Oldest first; of entries of one instant, the smaller nonce first.
  struct OlderFirst {
    bool operator()(const Entries::value_type* left, const Entries::value_type* right) const;
  };

  void RemoveOldest() TEVRA_REQUIRES(mutex_);

  tevra::osa::ITimeSource* const time_source_;
  const tevra::osa::TimeSpan lifetime_;

  // Found at a cost that their number does not change.
  Entries entries_ TEVRA_GUARDED_BY(mutex_);
  // Every entry once, so that a pass looks only at what it removes.
  std::set<const Entries::value_type*, OlderFirst> by_age_ TEVRA_GUARDED_BY(mutex_);
  tevra::osa::Mutex mutex_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_NONCE_CACHE_H_

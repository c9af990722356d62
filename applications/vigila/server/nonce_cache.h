#ifndef VIGILA_SERVER_NONCE_CACHE_H_
#define VIGILA_SERVER_NONCE_CACHE_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "tevra/osa/mutex.h"
#include "tevra/osa/time.h"

namespace vigila::server {

// The protection against replayed digests: the nonces issued to HTTP clients and those that
// web-service clients have used, each for 300 seconds from its creation. Holds at most 1024 entries
// after each expiry pass, 1025 between two.
//
// Any thread may call.
class NonceCache {
 public:
  static constexpr std::size_t kMaxEntries = 1024;
  static constexpr int kLifetimeSecs = 300;

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

 private:
  struct Entry {
    tevra::osa::TimeStruct created;
    uint64_t count = 0;
  };
  using Entries = std::map<std::string, Entry>;

  // Oldest first; of entries of one instant, the smaller nonce first.
  struct OlderFirst {
    bool operator()(const Entries::const_iterator& left,
                    const Entries::const_iterator& right) const;
  };

  void CheckExpire() TEVRA_REQUIRES(mutex_);
  bool CheckCount(Entries::iterator entry, const std::string& nc) TEVRA_REQUIRES(mutex_);
  void RemoveOldest() TEVRA_REQUIRES(mutex_);

  tevra::osa::ITimeSource* const time_source_;
  const tevra::osa::TimeSpan lifetime_;

  Entries entries_ TEVRA_GUARDED_BY(mutex_);
  // Every entry once, so that a pass looks only at what it removes.
  std::set<Entries::const_iterator, OlderFirst> by_age_ TEVRA_GUARDED_BY(mutex_);
  tevra::osa::Mutex mutex_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_NONCE_CACHE_H_

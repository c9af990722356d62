#include "vigila/server/nonce_cache.h"

#include <cstdlib>

namespace vigila::server {

using tevra::osa::MutexAutoLock;
using tevra::osa::TimeSpan;
using tevra::osa::TimeStruct;

NonceCache::NonceCache(tevra::osa::ITimeSource* time_source)
    : time_source_(time_source),
      lifetime_(TimeSpan::FromSeconds(kLifetimeSecs)),
      mutex_("NonceCache") {}

NonceCache::~NonceCache() = default;

bool NonceCache::OlderFirst::operator()(const Entries::value_type* left,
                                        const Entries::value_type* right) const {
  if (left->second.created != right->second.created) {
    return left->second.created < right->second.created;
  }
  return left->first < right->first;
}

bool NonceCache::Has(const std::string& nonce) {
  MutexAutoLock lock(mutex_);
  CheckExpire();
  if (entries_.contains(nonce)) return true;

  TimeStruct now;
  time_source_->GetTime(now);
  const auto added = entries_.emplace(nonce, Entry{now, 0}).first;
  try {
    by_age_.insert(by_age_.end(), &*added);
  } catch (...) {
    entries_.erase(added);  // no pass would ever find it
    throw;
  }
  return false;
}

bool NonceCache::CheckNonceAndCount(const std::string& nonce, const std::string& nc) {
  MutexAutoLock lock(mutex_);
  // Contract: the pass comes before the look-up, so an overfull cache may evict the very nonce
  // that is asked about.
  CheckExpire();
  const auto entry = Find(nonce);
  if (entry == entries_.end()) return true;
  return CheckCount(entry, nc);
}

void NonceCache::CheckExpire() {
  TimeStruct now;
  time_source_->GetTime(now);
  while (!by_age_.empty()) {
    // Contract: the life counts from the creation; use never extends it.
    TimeStruct expiry = (*by_age_.begin())->second.created;
    expiry += lifetime_.AsMicroseconds();
    if (now <= expiry) break;
    RemoveOldest();
  }
  // Deliberate: one eviction a pass, which together with one insertion an operation bounds the
  // cache at one entry above the limit.
  if (entries_.size() > kMaxEntries) RemoveOldest();
}

bool NonceCache::CheckCount(Entries::iterator entry, const std::string& nc) {
  // Contract: clients that count nothing send no count; only the nonce's life protects them.
  if (nc.empty()) return false;
  // Contract: leading blanks, a sign and "0x" are read as strtoul reads them, what follows the
  // number is ignored, and no number at all is 0, which is never new.
  const uint64_t count = std::strtoull(nc.c_str(), nullptr, 16);
  if (count <= entry->second.count) return true;
  entry->second.count = count;
  return false;
}

void NonceCache::RemoveOldest() {
  const Entries::value_type* const oldest = *by_age_.begin();
  by_age_.erase(by_age_.begin());
  entries_.erase(entries_.find(oldest->first));
}

}  // namespace vigila::server

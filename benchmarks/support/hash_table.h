#ifndef BENCHMARKS_SUPPORT_HASH_TABLE_H_
#define BENCHMARKS_SUPPORT_HASH_TABLE_H_

#include <algorithm>
#include <array>
#include <cstddef>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "benchmarks/support/pairs.h"

namespace benchmarks {

// Keys in no order that a processor could learn, one after the other, for ever.
class Round {
 public:
  explicit Round(std::vector<std::string> keys) : keys_(std::move(keys)) {
    std::shuffle(keys_.begin(), keys_.end(), std::mt19937(1));
  }
  const std::string& Next() {
    if (++next_ >= keys_.size()) next_ = 0;
    return keys_[next_];
  }

 private:
  std::vector<std::string> keys_;
  size_t next_ = 0;
};

// The kind of table that sessions and nonces are kept in, with values of their size and nothing
// around it.
class HashTable {
 public:
  explicit HashTable(const std::vector<std::string>& keys) {
    for (const std::string& key : keys) entries_[key] = {};
  }
  void Find(const std::string& key) { ++entries_.find(key)->second[0]; }
  void Insert(const std::string& key) { entries_.emplace(key, Value{}); }
  void Erase(const std::string& key) { entries_.erase(key); }

 private:
  using Value = std::array<size_t, 4>;
  std::unordered_map<std::string, Value> entries_;
};

// Look-ups of the keys, in a round of their own.
inline Batch LookUps(const std::vector<std::string>& keys) {
  return Timed([table = std::make_shared<HashTable>(keys), round = Round(keys)]() mutable {
    table->Find(round.Next());
  });
}

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_HASH_TABLE_H_

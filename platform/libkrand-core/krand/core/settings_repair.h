#ifndef KRAND_CORE_SETTINGS_REPAIR_H_
#define KRAND_CORE_SETTINGS_REPAIR_H_

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "krand/core/settings_format.h"

namespace krand::core {

// What can be done about a domain's store that settings_init refuses. No one may have it open.
// Throws SettingsFailure that names the file.
class SettingsRepair final {
 public:
  enum class Source { kStore, kCopy };

  struct Finding {
    bool there = false;
    time_t written = 0;
    std::vector<std::string> damage;  // sentences; none: it is sound
    int64_t change = 0;               // number of its last one, as far as it can be read
    bool marked = false;
    std::vector<SettingsRecord> intact;
  };

  explicit SettingsRepair(const std::string& domain);

  // Where a source lies.
  std::string PathOf(Source source) const;
  // Changes nothing.
  Finding Examine(Source source) const;
  // Makes a store of these records and puts it in the place of the present one, which is kept under
  // the name that is returned; empty when there was none. Killed at any instant, it leaves the one
  // or the other.
  std::string PutInForce(const std::vector<SettingsRecord>& records, bool marked) const;

 private:
  std::string SetAside() const;

  const std::string path_;
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_REPAIR_H_

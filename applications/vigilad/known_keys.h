#ifndef VIGILAD_KNOWN_KEYS_H_
#define VIGILAD_KNOWN_KEYS_H_

#include <string>
#include <vector>

#include "tevra/core/ini_file.h"

namespace vigila::daemon {

struct KnownKey {
  std::string section;
  std::string name;
  std::string fallback;
};

// Every configuration key that this program reads; one that several sources read comes several
// times.
std::vector<KnownKey> KnownKeys();

// A sentence for every section and key of `file` that none of them is, with what was probably
// meant.
std::vector<std::string> UnknownIn(const tevra::core::IniFile& file);

}  // namespace vigila::daemon

#endif  // VIGILAD_KNOWN_KEYS_H_

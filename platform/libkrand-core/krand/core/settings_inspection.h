#ifndef KRAND_CORE_SETTINGS_INSPECTION_H_
#define KRAND_CORE_SETTINGS_INSPECTION_H_

#include <string>
#include <vector>

#include "krand/core/settings_format.h"
#include "krand/core/sqlite_file.h"

namespace krand::core {

// A look at everything that a store's file holds, each record beside its checksum and all of them
// beside the manifest.
struct SettingsInspection {
  enum class Keep { kNothing, kIntactRecords };

  // Throws SettingsFailure when the file cannot be read for another reason than what is in it.
  static SettingsInspection Of(SqliteFile& file, Keep keep);

  // Sentences about the file, in the order found; none: it is sound.
  std::vector<std::string> damage;
  // As the file has it when it is sound, else what could be read of it.
  SettingsManifest manifest;
  std::vector<SettingsRecord> intact;
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_INSPECTION_H_

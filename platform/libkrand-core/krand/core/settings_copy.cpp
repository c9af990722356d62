#include "krand/core/settings_copy.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "krand/core/settings_failure.h"
#include "krand/core/settings_file.h"
#include "krand/core/settings_inspection.h"

namespace krand::core {

SettingsCopy::SettingsCopy(const std::string& store) : path_(SettingsFile::CopyOf(store)) {}

bool SettingsCopy::IsDue(time_t now) const {
  struct stat status;
  if (stat(path_.c_str(), &status) != 0) return true;
  return now < status.st_mtime || now - status.st_mtime >= kLifetimeSecs;
}

void SettingsCopy::Make(const std::function<void(const std::string& name)>& fill) const {
  try {
    tevra::osa::UnfinishedFile file(path_, SettingsFile::kCompanions);
    fill(file.Name());
    SqliteFile made(file.Name(), SqliteFile::Access::kAlone);
    const SettingsInspection found =
        SettingsInspection::Of(made, SettingsInspection::Keep::kNothing);
    if (!found.damage.empty()) {
      throw SettingsFailure(path_ +
                            ": is not renewed, the store is damaged: " + found.damage.front());
    }
    if (fsync(file.get()) != 0) {
      throw std::system_error(errno, std::generic_category(), "cannot be flushed");
    }
    file.Replace();
  } catch (const std::system_error& failure) {
    throw SettingsFailure(path_ + ": " + failure.what());
  }
}

}  // namespace krand::core

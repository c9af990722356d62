#ifndef SUPPORT_PLATFORM_FIXTURE_H_
#define SUPPORT_PLATFORM_FIXTURE_H_

#include <filesystem>
#include <string>

#include "support/temp_dir.h"
#include "tevra/core/ini_file.h"
#include "tevra/core/platform_config.h"

namespace support {

// A host platform of the test's own: settings and bus sockets live in a new directory, everything
// else has its default. The configuration before is restored at the end. Build it before anything
// that uses the platform.
class PlatformFixture {
 public:
  PlatformFixture() : previous_(tevra::core::PlatformConfig::Get().File()) {
    std::filesystem::create_directory(SettingsDir());
    std::filesystem::create_directory(RuntimeDir());
    config_.Set("Settings", "directory", SettingsDir());
    config_.Set("MsgBus", "runtime_dir", RuntimeDir());
    tevra::core::PlatformConfig::Replace(config_);
  }
  ~PlatformFixture() { tevra::core::PlatformConfig::Replace(previous_); }
  PlatformFixture(const PlatformFixture&) = delete;
  PlatformFixture& operator=(const PlatformFixture&) = delete;

  // Changes one more value, at once.
  void Set(const std::string& section, const std::string& key, const std::string& value) {
    config_.Set(section, key, value);
    tevra::core::PlatformConfig::Replace(config_);
  }

  const TempDir& Dir() const { return dir_; }
  std::string SettingsDir() const { return dir_.File("settings"); }
  std::string RuntimeDir() const { return dir_.File("run"); }

 private:
  const TempDir dir_;
  const tevra::core::IniFile previous_;
  tevra::core::IniFile config_;
};

}  // namespace support

#endif  // SUPPORT_PLATFORM_FIXTURE_H_

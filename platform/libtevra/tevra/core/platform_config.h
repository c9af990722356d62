#ifndef TEVRA_CORE_PLATFORM_CONFIG_H_
#define TEVRA_CORE_PLATFORM_CONFIG_H_

#include <string>

#include "tevra/core/config_key.h"
#include "tevra/core/ini_file.h"

namespace tevra::core {

// The one configuration of the host platform: the INI file named by TEVRA_PLATFORM_CONFIG, else
// /etc/tevra/platform.ini. Read once, on first use. No file at the default place means defaults
// everywhere; a file that was named and cannot be read, or a malformed one, throws
// tevra::osa::Exception that names it. Get* may be called from any thread; Replace only while no
// other thread uses the platform (a daemon's start, a test's set-up).
class PlatformConfig {
 public:
  static constexpr const char* kEnvironmentVariable = "TEVRA_PLATFORM_CONFIG";
  static constexpr const char* kDefaultPath = "/etc/tevra/platform.ini";

  static const PlatformConfig& Get();
  static void Replace(const IniFile& file);
  static void LoadFrom(const std::string& path);

  std::string GetString(const ConfigKey& key) const;
  // A value that is no whole number in [minimum, maximum] throws tevra::osa::Exception.
  long GetInt(const ConfigKey& key, long minimum, long maximum) const;
  // "true"/"yes"/"on"/"1" and "false"/"no"/"off"/"0"; anything else throws.
  bool GetBool(const ConfigKey& key) const;
  const IniFile& File() const { return file_; }

 private:
  IniFile file_;
};

}  // namespace tevra::core

#endif  // TEVRA_CORE_PLATFORM_CONFIG_H_

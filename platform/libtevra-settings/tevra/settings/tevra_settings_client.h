#ifndef TEVRA_SETTINGS_TEVRA_SETTINGS_CLIENT_H_
#define TEVRA_SETTINGS_TEVRA_SETTINGS_CLIENT_H_

#include <string>

#include "tevra/core/ini_file.h"

namespace tevra::settings {

// Reads settings of the older kind, kept in INI files. Read only.
class TevraSettingsClient {
 public:
  enum Mode { kDevice = 1, kGivenFile = 2 };

  // kDevice reads the device's own INI file and ignores `file`; kGivenFile reads only `file`, which
  // is borrowed and must outlive the client.
  TevraSettingsClient(int mode, const core::IniFile& file);

  // `key` is "[group]/name". The empty string when there is no such value or the key is malformed.
  std::string GetValue(const std::string& key) const;

 private:
  const core::IniFile& file_;
};

}  // namespace tevra::settings

#endif  // TEVRA_SETTINGS_TEVRA_SETTINGS_CLIENT_H_

#include "tevra/settings/tevra_settings_client.h"

#include "tevra/core/platform_config.h"
#include "tevra/osa/exception.h"

namespace tevra::settings {

namespace {

const core::IniFile& FileOf(int mode, const core::IniFile& given) {
  switch (mode) {
    case TevraSettingsClient::kDevice:
      return core::PlatformConfig::Get().File();
    case TevraSettingsClient::kGivenFile:
      return given;
    default:
      throw osa::Exception("settings client: there is no mode %d", mode);
  }
}

}  // namespace

TevraSettingsClient::TevraSettingsClient(int mode, const core::IniFile& file)
    : file_(FileOf(mode, file)) {}

std::string TevraSettingsClient::GetValue(const std::string& key) const {
  const size_t end = key.find("]/");
  if (key.empty() || key.front() != '[' || end == std::string::npos) {
    return std::string();
  }
  // The name may hold slashes: it is everything behind the group.
  return file_.Get(key.substr(1, end - 1), key.substr(end + 2)).value_or(std::string());
}

}  // namespace tevra::settings

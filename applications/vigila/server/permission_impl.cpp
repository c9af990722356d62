#include "vigila/server/permission_impl.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "krand/core/krand_api_exception.h"
#include "krand/core/krand_core.h"
#include "tevra/core/ini_file.h"
#include "tevra/osa/exception.h"
#include "tevra/settings/tevra_settings_client.h"
#include "vigila/server/rule_manager.h"

namespace vigila::server {

using tevra::settings::TevraSettingsClient;

const std::string PermissionImpl::kInjectCGIRule = "/inject.cgi";
const std::string PermissionImpl::kSystemRule = "/system";
const std::string PermissionImpl::kBraxenApiRule = "/control/*";
const std::string PermissionImpl::kOnvifApiRule = "/onvif/*";
const std::string PermissionImpl::kHalvardCGIRule = "/halvard-instrument/cgi/*";
const std::string PermissionImpl::kJpegRule = "/jpeg*";
const std::string PermissionImpl::kRtspRule = "/rtsp/*";
const std::string PermissionImpl::kWebSocketRule = "/ws/*";

const std::string PermissionImpl::kPermApiAccess = "{00d8dc27-61d1-4b7d-85a8-519efb70d712}";
const std::string PermissionImpl::kBraxenAccess = "{d6f86cee-5c0c-41ce-a91f-b8563a2b94d6}";
const std::string PermissionImpl::kReadSystemAccess = "{252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a}";
const std::string PermissionImpl::kReadSensitiveAccess = "{86343993-7e7e-4bbf-8f00-cf64e98d7aeb}";
const std::string PermissionImpl::kReadSecretAccess = "{e1f9915b-7818-4bf0-b1e4-0514a9d05231}";
const std::string PermissionImpl::kWriteAccess = "{5bff6465-ec25-4242-aebc-b089f32a0b90}";
const std::string PermissionImpl::kWriteUnrecoverableAccess =
    "{cf4f528d-3e7d-4c9d-b721-e8fc326cd661}";
const std::string PermissionImpl::kReadMediaAccess = "{88049574-465a-4f41-89d4-d6d517e8c218}";
const std::string PermissionImpl::kActuateAccess = "{42c59193-e2f4-4ca2-904c-11063eab5d3b}";
const std::string PermissionImpl::kWriteSecretAccess = "{41414810-1b86-4b6a-a9cb-610264082e2e}";
const std::string PermissionImpl::kReadAdminOnlyAccess = "{1ac07d72-3478-4824-b848-b3d1e653bebe}";
const std::string PermissionImpl::kAllAccess = "true";

std::map<std::string, std::string> PermissionImpl::kRuleSettingNames;

namespace {

// Where older releases kept the dynamic rules, each under its path without the leading "/".
constexpr const char* kOlderRules = "[Applications/vigila/Rules/Dynamic]";

std::string ReadSetting(const std::string& name) {
  char* text = nullptr;
  const krand_core_status status = krand_core_settings_get_string_value(name.c_str(), &text);
  if (status != KRAND_CORE_OK) {
    throw krand::core::KrandApiException("could not read setting " + name, status);
  }
  const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
  return text == nullptr ? std::string() : std::string(text);
}

}  // namespace

PermissionImpl::PermissionImpl(RuleManager& rules, void* context, bool test_settings)
    : KrandApiPermissionTargetImplBase(context), rules_(rules) {
  const tevra::core::IniFile empty_file;
  const TevraSettingsClient older_settings(
      test_settings ? TevraSettingsClient::kGivenFile : TevraSettingsClient::kDevice, empty_file);
  kRuleSettingNames[kJpegRule] = "rule.jpeg";
  kRuleSettingNames[kRtspRule] = "rule.rtsp";
  kRuleSettingNames[kWebSocketRule] = "rule.web_socket";
  InstallStaticRules();
  InstallDynamicRules(older_settings);
}

PermissionImpl::~PermissionImpl() = default;

int PermissionImpl::getAccessRule(const char* path, char** rule) {
  if (path == nullptr) return 1;
  auto found = static_rules_.find(path);
  if (found == static_rules_.end()) {
    found = dynamic_rules_.find(path);
    if (found == dynamic_rules_.end()) return 1;
  }
  // Deliberate: the text as it was set, not a rendering of what it was understood to mean.
  char* const copy = strdup(found->second.c_str());
  if (copy == nullptr) return 1;
  *rule = copy;
  return 0;
}

// Deliberate: the text is not validated. Whatever it says is kept and obeyed; a mistyped identifier
// admits nobody.
int PermissionImpl::setAccessRule(const char* path, const char* rule) {
  if (path == nullptr || rule == nullptr) return 1;
  // Deliberate: the static rules are not in this list and so are read-only here.
  if (std::find(changeable_paths_.begin(), changeable_paths_.end(), path) ==
      changeable_paths_.end()) {
    return 1;
  }
  if (const auto fixed = static_rules_.find(path); fixed != static_rules_.end()) {
    fixed->second = rule;
    WriteRuleSetting(path, rule);
    rules_.SetRules(static_rules_, false);
    return 0;
  }
  const auto found = dynamic_rules_.find(path);
  if (found == dynamic_rules_.end()) return 1;
  found->second = rule;
  if (const auto setting = kRuleSettingNames.find(path); setting != kRuleSettingNames.end()) {
    WriteRuleSetting(setting->second, rule);
  }
  rules_.SetRules(dynamic_rules_, true);
  return 0;
}

void PermissionImpl::InstallStaticRules() {
  static_rules_[kInjectCGIRule] = "@admins";
  static_rules_[kSystemRule] = kAllAccess;
  static_rules_[kBraxenApiRule] = kBraxenAccess;
  static_rules_[kOnvifApiRule] = kPermApiAccess;
  static_rules_[kHalvardCGIRule] = kPermApiAccess;
  rules_.SetRules(static_rules_, false);
}

void PermissionImpl::InstallDynamicRules(const TevraSettingsClient& older_settings) {
  for (const std::string& path : {kJpegRule, kRtspRule, kWebSocketRule}) {
    dynamic_rules_[path] = InitialRule(path, older_settings);
    changeable_paths_.push_back(path);
  }
  rules_.SetRules(dynamic_rules_, true);
}

std::string PermissionImpl::InitialRule(const std::string& path,
                                        const TevraSettingsClient& older_settings) {
  std::string value = ReadRuleSetting(path);
  if (!value.empty()) return value;
  value = older_settings.GetValue(kOlderRules + path);
  // Deliberate: the default is written back too, so that the setting shows the rule in force.
  if (value.empty()) value = kReadMediaAccess;
  WriteRuleSetting(kRuleSettingNames[path], value);
  return value;
}

std::string PermissionImpl::ReadRuleSetting(const std::string& path) {
  const auto setting = kRuleSettingNames.find(path);
  if (setting == kRuleSettingNames.end()) return "{null}";
  try {
    return ReadSetting(setting->second);
  } catch (const krand::core::KrandApiException& failure) {
    // An unreadable store must not look like an empty one: that would bring the default back.
    log(KRAND_CORE_LOG_ERROR, "%s", failure.what());
    throw tevra::osa::Exception("%s", failure.what());
  }
}

// Deliberate: a rule that could not be kept is in force until the next start, and the caller is not
// told.
void PermissionImpl::WriteRuleSetting(const std::string& setting, const std::string& value) {
  const krand_core_status status =
      krand_core_settings_set_string_value(setting.c_str(), value.c_str());
  if (status == KRAND_CORE_OK) return;
  log(KRAND_CORE_LOG_ERROR, "%s",
      krand::core::KrandApiException::formatMessage("could not write setting " + setting, status)
          .c_str());
}

}  // namespace vigila::server

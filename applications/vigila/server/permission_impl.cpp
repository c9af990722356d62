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

using tevra::osa::MutexAutoLock;
using tevra::settings::TevraSettingsClient;

const std::string PermissionImpl::kInjectCGIRule = contract::kInjectCgiPath;
const std::string PermissionImpl::kSystemRule = contract::kSystemPath;
const std::string PermissionImpl::kBraxenApiRule = contract::kControlPath;
const std::string PermissionImpl::kOnvifApiRule = contract::kOnvifPath;
const std::string PermissionImpl::kHalvardCGIRule = contract::kInstrumentCgiPath;
const std::string PermissionImpl::kJpegRule = contract::kJpegPath;
const std::string PermissionImpl::kRtspRule = contract::kRtspPath;
const std::string PermissionImpl::kWebSocketRule = contract::kWebSocketPath;

const std::string PermissionImpl::kPermApiAccess = contract::kApiAccess;
const std::string PermissionImpl::kBraxenAccess = contract::kControlAccess;
const std::string PermissionImpl::kReadSystemAccess = contract::kReadSystem;
const std::string PermissionImpl::kReadSensitiveAccess = contract::kReadSensitive;
const std::string PermissionImpl::kReadSecretAccess = contract::kReadSecrets;
const std::string PermissionImpl::kWriteAccess = contract::kWrite;
const std::string PermissionImpl::kWriteUnrecoverableAccess = contract::kWriteUnrecoverable;
const std::string PermissionImpl::kReadMediaAccess = contract::kReadMedia;
const std::string PermissionImpl::kActuateAccess = contract::kActuate;
const std::string PermissionImpl::kWriteSecretAccess = contract::kWriteSecrets;
const std::string PermissionImpl::kReadAdminOnlyAccess = contract::kReadAdministrators;
const std::string PermissionImpl::kAllAccess = contract::kOpenToEveryone;

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
  for (const contract::Rule& rule : contract::kRules) {
    if (rule.setting != nullptr) kRuleSettingNames[rule.path] = rule.setting;
  }
  InstallStaticRules();
  InstallDynamicRules(older_settings);
}

PermissionImpl::~PermissionImpl() = default;

int PermissionImpl::getAccessRule(const char* path, char** rule) {
  if (path == nullptr) return 1;
  const MutexAutoLock lock(mutex_);
  auto found = static_rules_.find(path);
  if (found == static_rules_.end()) {
    found = dynamic_rules_.find(path);
    if (found == dynamic_rules_.end()) return 1;
  }
  // Contract: the text as it was set, not a rendering of what it was understood to mean.
  char* const copy = strdup(found->second.c_str());
  if (copy == nullptr) return 1;
  *rule = copy;
  return 0;
}

// Contract: the text is not validated. Whatever it says is kept and obeyed; a mistyped identifier
// admits no one.
int PermissionImpl::setAccessRule(const char* path, const char* rule) {
  if (path == nullptr || rule == nullptr) return 1;
  const MutexAutoLock lock(mutex_);
  // Contract: the static rules are not in this list and so are read-only here.
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

std::map<std::string, std::string> PermissionImpl::GetChangeableRules() const {
  const MutexAutoLock lock(mutex_);
  return dynamic_rules_;
}

void PermissionImpl::ReplaceRules(
    const std::map<std::string, std::string>& rules,
    const std::function<void(const std::map<std::string, std::string>&)>& write) {
  const MutexAutoLock lock(mutex_);
  std::map<std::string, std::string> settings;
  for (const auto& [path, rule] : rules) settings[kRuleSettingNames.at(path)] = rule;
  write(settings);
  dynamic_rules_ = rules;
  rules_.SetRules(dynamic_rules_, true);
}

void PermissionImpl::InstallStaticRules() {
  for (const contract::Rule& rule : contract::kRules) {
    if (rule.setting == nullptr) static_rules_[rule.path] = rule.value;
  }
  rules_.SetRules(static_rules_, false);
}

void PermissionImpl::InstallDynamicRules(const TevraSettingsClient& older_settings) {
  const MutexAutoLock lock(mutex_);
  for (const contract::Rule& rule : contract::kRules) {
    if (rule.setting == nullptr) continue;
    dynamic_rules_[rule.path] = InitialRule(rule, older_settings);
    changeable_paths_.push_back(rule.path);
  }
  rules_.SetRules(dynamic_rules_, true);
}

std::string PermissionImpl::InitialRule(const contract::Rule& rule,
                                        const TevraSettingsClient& older_settings) {
  std::string value = ReadRuleSetting(rule.path);
  if (!value.empty()) return value;
  value = older_settings.GetValue(kOlderRules + std::string(rule.path));
  // Contract: the default is written back too, so that the setting shows the rule in force.
  if (value.empty()) value = rule.value;
  WriteRuleSetting(rule.setting, value);
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

// Contract: a rule that could not be kept is in force until the next start, and the caller is not
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

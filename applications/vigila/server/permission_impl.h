#ifndef VIGILA_SERVER_PERMISSION_IMPL_H_
#define VIGILA_SERVER_PERMISSION_IMPL_H_

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "krand/interfaces/permission_target.h"
#include "tevra/osa/mutex.h"
#include "vigila/contract/rules.h"

namespace tevra::settings {
class TevraSettingsClient;
}

namespace vigila::server {

class RuleManager;

// The service's permission target: installs the access rules into the rule manager, and lets other
// services read all of them and change the dynamic ones, which the platform settings keep.
//
// getAccessRule and setAccessRule are called one at a time, by the permission runner's thread.
class PermissionImpl : public KrandApiPermissionTargetImplBase {
 public:
  // Rule paths.
  static const std::string kInjectCGIRule;
  static const std::string kSystemRule;
  static const std::string kBraxenApiRule;
  static const std::string kOnvifApiRule;
  static const std::string kHalvardCGIRule;
  static const std::string kJpegRule;
  static const std::string kRtspRule;
  static const std::string kWebSocketRule;

  // Rule values: the permissions that the device's services agree on, and "open to everybody".
  static const std::string kPermApiAccess;
  static const std::string kBraxenAccess;
  static const std::string kReadSystemAccess;
  static const std::string kReadSensitiveAccess;
  static const std::string kReadSecretAccess;
  static const std::string kWriteAccess;
  static const std::string kWriteUnrecoverableAccess;
  static const std::string kReadMediaAccess;
  static const std::string kActuateAccess;
  static const std::string kWriteSecretAccess;
  static const std::string kReadAdminOnlyAccess;
  static const std::string kAllAccess;

  // Installs every rule. `rules` must outlive the target; `context` is the platform's logging
  // context. `test_settings` true: older settings are taken from an empty file instead of the
  // device's. Throws tevra::osa::Exception, naming the setting, when a setting cannot be read.
  PermissionImpl(RuleManager& rules, void* context, bool test_settings);
  ~PermissionImpl() override;

  int getAccessRule(const char* path, char** rule) override;
  int setAccessRule(const char* path, const char* rule) override;

  // Any thread may call both.
  // The rules that can be changed, path to value.
  std::map<std::string, std::string> GetChangeableRules() const;
  // Puts `rules` in force, whose paths are those of GetChangeableRules, once `write` has made them
  // durable: it is given the settings that keep them, and their values. Nothing changes when it
  // throws.
  void ReplaceRules(const std::map<std::string, std::string>& rules,
                    const std::function<void(const std::map<std::string, std::string>&)>& write);

 private:
  friend struct PermissionImplPeer;

  void InstallStaticRules();
  void InstallDynamicRules(const tevra::settings::TevraSettingsClient& older_settings);
  std::string InitialRule(const contract::Rule& rule,
                          const tevra::settings::TevraSettingsClient& older_settings);
  // The empty text when the setting has no value.
  std::string ReadRuleSetting(const std::string& path);
  void WriteRuleSetting(const std::string& setting, const std::string& value);

  // Rule path to the platform setting that keeps its value.
  static std::map<std::string, std::string> kRuleSettingNames;

  RuleManager& rules_;
  std::map<std::string, std::string> static_rules_;
  // Held while they are changed, in the settings as well.
  mutable tevra::osa::Mutex mutex_{"PermissionImpl"};
  std::map<std::string, std::string> dynamic_rules_ TEVRA_GUARDED_BY(mutex_);
  std::vector<std::string> changeable_paths_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_PERMISSION_IMPL_H_

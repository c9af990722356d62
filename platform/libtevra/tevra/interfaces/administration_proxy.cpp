#include "tevra/interfaces/i_administration.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/interfaces/operation_proxy.h"

namespace tevra::interfaces {
namespace {

class AdministrationProxy final : public IAdministration {
 public:
  explicit AdministrationProxy(msgbus::IMsgBus* bus)
      : proxy_(bus, kInterface, ISecurityProvider::kDestination) {}

  std::string GetAccounts(const Caller& caller, const std::string& cursor,
                          uint32_t limit) override {
    return Ask("GetAccounts", caller, cursor, limit);
  }
  std::string GetAccount(const Caller& caller, const std::string& name) override {
    return Ask("GetAccount", caller, name);
  }
  std::string UnlockAccount(const Caller& caller, const std::string& name) override {
    return Ask("UnlockAccount", caller, name);
  }
  std::string GetSessions(const Caller& caller, const std::string& user, const std::string& cursor,
                          uint32_t limit) override {
    return Ask("GetSessions", caller, user, cursor, limit);
  }
  std::string EndSession(const Caller& caller, const std::string& id) override {
    return Ask("EndSession", caller, id);
  }
  std::string EndSessions(const Caller& caller, const std::string& user, bool spare_own) override {
    return Ask("EndSessions", caller, user, spare_own);
  }
  std::string SetSessionSource(const Caller& caller, const std::string& source) override {
    return Ask("SetSessionSource", caller, source);
  }
  std::string ExplainAccount(const Caller& caller, const std::string& name,
                             const std::string& path) override {
    return Ask("ExplainAccount", caller, name, path);
  }
  std::string ExplainSession(const Caller& caller, const std::string& token,
                             const std::string& path) override {
    return Ask("ExplainSession", caller, token, path);
  }
  std::string GetRuleEffect(const Caller& caller, const std::string& path,
                            const std::string& rule) override {
    return Ask("GetRuleEffect", caller, path, rule);
  }
  std::string CheckPassword(const Caller& caller, const std::string& name,
                            const std::string& proposed) override {
    return Ask("CheckPassword", caller, name, proposed);
  }
  std::string ChangePassword(const Caller& caller, const std::string& current,
                             const std::string& proposed) override {
    return Ask("ChangePassword", caller, current, proposed);
  }
  std::string StartBackup(const Caller& caller, const std::string& passphrase) override {
    return Ask("StartBackup", caller, passphrase);
  }
  std::string GetBackup(const Caller& caller, const std::string& id, uint32_t offset) override {
    return Ask("GetBackup", caller, id, offset);
  }
  std::string PutBackup(const Caller& caller, const std::string& id, uint32_t offset,
                        const std::string& piece) override {
    return Ask("PutBackup", caller, id, offset, piece);
  }
  std::string StartRestore(const Caller& caller, const std::string& id,
                           const std::string& passphrase) override {
    return Ask("StartRestore", caller, id, passphrase);
  }
  std::string GetRestorePlan(const Caller& caller, const std::string& id) override {
    return Ask("GetRestorePlan", caller, id);
  }
  std::string CommitRestore(const Caller& caller, const std::string& id) override {
    return Ask("CommitRestore", caller, id);
  }

 private:
  template <typename... Arguments>
  std::string Ask(const char* operation, const Caller& caller,
                  const Arguments&... arguments) const {
    return proxy_.Call<std::string>(operation, caller.token, arguments...);
  }

  const OperationProxy proxy_;
};

}  // namespace

IAdministration* IAdministration::CreateClient(msgbus::IMsgBus* bus) {
  return new AdministrationProxy(bus);
}

}  // namespace tevra::interfaces

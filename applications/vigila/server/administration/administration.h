#ifndef VIGILA_SERVER_ADMINISTRATION_ADMINISTRATION_H_
#define VIGILA_SERVER_ADMINISTRATION_ADMINISTRATION_H_

#include <cstdint>
#include <string>

#include "tevra/interfaces/i_administration.h"
#include "vigila/server/backup/backup_desk.h"

namespace vigila::server {

class ServerEnv;

// The server's side of the administration interface. Borrows the provider, the sessions, the rules
// and the clock from the environment, which must outlive it. Called on the bus's dispatch thread,
// as the provider is, one request at a time.
class Administration final : public tevra::interfaces::IAdministration {
 public:
  explicit Administration(ServerEnv& env);

  std::string GetAccounts(const Caller& caller, const std::string& cursor, uint32_t limit) override;
  std::string GetAccount(const Caller& caller, const std::string& name) override;
  std::string UnlockAccount(const Caller& caller, const std::string& name) override;
  std::string GetSessions(const Caller& caller, const std::string& user, const std::string& cursor,
                          uint32_t limit) override;
  std::string EndSession(const Caller& caller, const std::string& id) override;
  std::string EndSessions(const Caller& caller, const std::string& user, bool spare_own) override;
  std::string SetSessionSource(const Caller& caller, const std::string& source) override;
  std::string ExplainAccount(const Caller& caller, const std::string& name,
                             const std::string& path) override;
  std::string ExplainSession(const Caller& caller, const std::string& token,
                             const std::string& path) override;
  std::string GetRuleEffect(const Caller& caller, const std::string& path,
                            const std::string& rule) override;
  std::string CheckPassword(const Caller& caller, const std::string& name,
                            const std::string& proposed) override;
  std::string ChangePassword(const Caller& caller, const std::string& current,
                             const std::string& proposed) override;
  std::string StartBackup(const Caller& caller, const std::string& passphrase) override;
  std::string GetBackup(const Caller& caller, const std::string& id, uint32_t offset) override;
  std::string PutBackup(const Caller& caller, const std::string& id, uint32_t offset,
                        const std::string& piece) override;
  std::string StartRestore(const Caller& caller, const std::string& id,
                           const std::string& passphrase) override;
  std::string GetRestorePlan(const Caller& caller, const std::string& id) override;
  std::string CommitRestore(const Caller& caller, const std::string& id) override;

 private:
  int64_t Now() const;
  void AnnounceEndedSessions();

  ServerEnv& env_;
  BackupDesk backups_;
  const int64_t start_;  // seconds since the epoch
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_ADMINISTRATION_ADMINISTRATION_H_

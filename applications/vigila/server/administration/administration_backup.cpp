#include "vigila/server/administration/administration.h"
#include "vigila/server/administration/answer.h"
#include "vigila/server/administration/authority.h"
#include "vigila/server/server_env.h"

namespace vigila::server {

std::string Administration::StartBackup(const Caller& caller, const std::string& passphrase) {
  Authority(caller, *env_.GetSecurityProvider()).RequireAdministrator();
  return answer::Text(backups_.StartBackup(passphrase));
}

std::string Administration::GetBackup(const Caller& caller, const std::string& id,
                                      uint32_t offset) {
  Authority(caller, *env_.GetSecurityProvider()).RequireAdministrator();
  return answer::Text(backups_.GetBackup(id, offset));
}

std::string Administration::PutBackup(const Caller& caller, const std::string& id, uint32_t offset,
                                      const std::string& piece) {
  Authority(caller, *env_.GetSecurityProvider()).RequireAdministrator();
  return answer::Text(backups_.PutBackup(id, offset, piece));
}

std::string Administration::StartRestore(const Caller& caller, const std::string& id,
                                         const std::string& passphrase) {
  Authority(caller, *env_.GetSecurityProvider()).RequireAdministrator();
  return answer::Text(backups_.StartRestore(id, passphrase));
}

std::string Administration::GetRestorePlan(const Caller& caller, const std::string& id) {
  Authority(caller, *env_.GetSecurityProvider()).RequireAdministrator();
  return answer::Text(backups_.GetRestorePlan(id));
}

std::string Administration::CommitRestore(const Caller& caller, const std::string& id) {
  Authority(caller, *env_.GetSecurityProvider()).RequireAdministrator();
  return answer::Text(backups_.CommitRestore(id));
}

}  // namespace vigila::server

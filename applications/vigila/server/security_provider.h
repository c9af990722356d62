#ifndef VIGILA_SERVER_SECURITY_PROVIDER_H_
#define VIGILA_SERVER_SECURITY_PROVIDER_H_

#include <string>
#include <vector>

#include "tevra/core/logger.h"
#include "tevra/interfaces/i_security_provider.h"
#include "vigila/contract/result_codes.h"
#include "vigila/model/user.h"
#include "vigila/server/export.h"
#include "vigila/server/nonce_cache.h"
#include "vigila/server/session_info.h"
#include "vigila/server/user_map.h"

namespace vigila::server {

class ServerEnv;

// The server's side of the security service: turns logons into session tokens, resolves tokens to
// accounts, answers access questions and administers the accounts.
//
// Owns the user store and the nonce cache; borrows sessions, rules and the clock from the
// environment, which must outlive every call. Requests arrive one at a time, on the bus's dispatch
// thread: the store relies on it.
//
// Refusals are values: result tokens, codes, false, empty. Exceptions are a store that cannot be
// read or written; the operation that throws has changed nothing.
class VIGILA_EXPORT SecurityProvider : public tevra::interfaces::ISecurityProvider {
 public:
  using enum contract::AdministrationResult;

  // Asks the device once whether it has unique passwords; the accounts load on the first call that
  // needs them. Throws tevra::osa::Exception when the device cannot answer.
  explicit SecurityProvider(ServerEnv* env);
  ~SecurityProvider() override;

  // Switches lock-out, expiry and password age on or off; before the first request.
  void EnforcePasswordPolicy(bool enforce);

  std::string Authenticate(bool reuse, const std::string& user64,
                           const std::string& password64) override;
  std::string AuthenticateHttp(bool reuse, const std::string& username, const std::string& nonce,
                               const std::string& ha2, bool sess, const std::string& qop,
                               const std::string& cnonce, const std::string& nc,
                               const std::string& response) override;
  std::string AuthenticateWsse(bool reuse, const std::string& username, const std::string& digest,
                               const std::string& nonce, const std::string& created) override;
  void Invalidate(const std::string& name) override;
  bool IsAuthenticated(const std::string& token) override;
  bool IsProtected(const std::string& path) const override;
  std::vector<std::string> GetAllowedPaths(const std::string& token) const override;
  std::vector<std::string> GetAllowedPermissions(const std::string& token) const override;
  std::string GetCredentials(const std::string& token) const override;
  int GetExpiration(const std::string& name, std::string& expires) const override;
  bool Authorize(const std::string& token, const std::string& path) override;
  bool Logout(const std::string& token) override;
  std::string GetNonce() override;
  std::string GetUsers() const override;
  int AddUsers(const std::string& json) override;
  int ModifyUsers(const std::string& json) override;
  int DeleteUsers(const std::vector<std::string>& names) override;
  int ValidatePassword(const std::string& name, const std::string& current,
                       const std::string& proposed) const override;
  std::string AddPassphrase(const std::string& phrase, const std::string& alias) override;
  std::string GetPassphrases() const override;
  std::string GetPassphrase(const std::string& id) const override;
  bool DeletePassphrase(const std::string& id) override;

  // Opens a session for an account whose credentials have been proven.
  std::string Enroll(const std::string& name, const std::string& digest, Group group,
                     bool reusable) const;
  // The one place where tokens become accounts. Null, or with `or_nobody` the anonymous account,
  // when there is no session. The record belongs to its session: use it within the request.
  model::User* GetUser(const std::string& token, bool or_nobody) const;
  // The accounts, for what administers them; one request at a time, as with this object's own.
  UserMap& Users() { return users_; }
  // Adds (`add`) or modifies the accounts that the document lists: all of them or none.
  int ProcessJson(const std::string& json, bool add);

 private:
  // True when a session that `reuse` allows to share was found and refreshed.
  bool FindReusable(bool reuse, const std::string& name, const std::string& ha1,
                    std::string& token) const;
  bool IsCreatedNow(const std::string& created) const;
  // Enroll, with a note for administrators of how and when.
  std::string Admit(LogonScheme scheme, const std::string& name, const std::string& digest,
                    Group group, bool reusable);

  ServerEnv* const env_;
  tevra::core::Logger* const logger_;
  UserMap users_;
  NonceCache nonces_;
  bool unique_passwords_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_SECURITY_PROVIDER_H_

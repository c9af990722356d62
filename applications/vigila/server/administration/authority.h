#ifndef VIGILA_SERVER_ADMINISTRATION_AUTHORITY_H_
#define VIGILA_SERVER_ADMINISTRATION_AUTHORITY_H_

#include <string>

#include "tevra/interfaces/i_administration.h"

namespace vigila::server {

class SecurityProvider;

// What the person may do on whose behalf an operation is called. Judged anew for every call; the
// session's idle time goes on running.
class Authority final {
 public:
  // Throws AccessDenied for a token without a living session, whatever the caller's role: who acts
  // for a person must not go on when that person has logged off. Without a token the caller must
  // hold the role admin.
  Authority(const tevra::interfaces::IAdministration::Caller& caller,
            const SecurityProvider& provider);

  bool IsAdministrator() const { return administrator_; }
  // The session's account; empty for a caller that acts by its role.
  const std::string& Name() const { return name_; }

  // Each throws AccessDenied otherwise.
  void RequireAdministrator() const { Require(administrator_); }
  void RequireAdministratorOr(const std::string& name) const {
    Require(administrator_ || (!name_.empty() && name_ == name));
  }
  void RequireSession() const;

 private:
  static void Require(bool condition);

  std::string name_;
  bool administrator_ = false;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_ADMINISTRATION_AUTHORITY_H_

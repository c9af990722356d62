#include "vigila/server/administration/authority.h"

#include "tevra/interfaces/access_denied.h"
#include "vigila/server/security_provider.h"

namespace vigila::server {

using tevra::interfaces::AccessDenied;
using tevra::interfaces::ISecurityProvider;

Authority::Authority(const tevra::interfaces::IAdministration::Caller& caller,
                     const SecurityProvider& provider) {
  if (caller.token.empty()) {
    if (!caller.holds_admin_role) {
      throw AccessDenied("without the role 'admin' the token of a session is needed");
    }
    administrator_ = true;
    return;
  }
  const model::User* const user = provider.GetUser(caller.token, false);
  if (user == nullptr) throw AccessDenied("the token belongs to no living session: log on again");
  name_ = user->Name();
  administrator_ = user->GetGroup() == ISecurityProvider::kAdministrators;
}

void Authority::RequireSession() const {
  if (name_.empty()) throw AccessDenied("this is about the caller's own session: give its token");
}

void Authority::Require(bool condition) {
  if (!condition) throw AccessDenied("this needs the role 'admin' or an administrator's session");
}

}  // namespace vigila::server

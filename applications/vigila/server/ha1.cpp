#include "vigila/server/ha1.h"

#include "tevra/core/secret_text.h"
#include "vigila/contract/limits.h"
#include "vigila/model/user.h"

namespace vigila::server {
std::string MakeHA1(std::string_view name, std::string_view password) {
  std::string text;
  const tevra::core::ScopedWipe wipe(text);
  // Once, or growing would leave copies of the password behind.
  text.reserve(name.size() + std::string_view(contract::kRealm).size() + password.size() + 2);
  text.append(name).append(":").append(contract::kRealm).append(":").append(password);
  return model::User::MD5sum(text);
}

}  // namespace vigila::server

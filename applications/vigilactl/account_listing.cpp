#include "vigilactl/account_listing.h"

#include <sstream>
#include <utility>

#include "json/elements.h"
#include "json/reader.h"
#include "tevra/core/json_utils.h"
#include "tevra/osa/exception.h"
#include "vigilactl/printable_text.h"

namespace vigilactl {

std::vector<ListedAccount> ListAccounts(const tevra::interfaces::ISecurityProvider& provider) {
  std::istringstream text(JsonWithoutStrayBytes(provider.GetUsers()));
  std::vector<ListedAccount> accounts;
  try {
    json::Object document;
    json::Reader::Read(document, text);
    const json::Array& users = std::as_const(document)["Users"];
    for (auto user = users.Begin(); user != users.End(); ++user) {
      accounts.push_back({tevra::core::JsonUtils::AsString((*user)["Name"]),
                          tevra::core::JsonUtils::AsUnsigned((*user)["Group"])});
    }
  } catch (const std::exception& error) {
    throw tevra::osa::Exception("the service's account listing cannot be read: %s", error.what());
  }
  return accounts;
}

}  // namespace vigilactl

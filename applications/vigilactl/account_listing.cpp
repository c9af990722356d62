#include "vigilactl/account_listing.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "tevra/osa/exception.h"
#include "vigilactl/printable_text.h"

namespace vigilactl {

namespace {

using Json = nlohmann::json;

uint32_t GroupOf(const Json& account) {
  const Json& group = account.at("Group");
  if (!group.is_number_unsigned() || group > std::numeric_limits<uint32_t>::max()) {
    throw std::runtime_error("a group is no 32-bit number");
  }
  return group.get<uint32_t>();
}

}  // namespace

std::vector<ListedAccount> ListAccounts(const tevra::interfaces::ISecurityProvider& provider) {
  const std::string listing = provider.GetUsers();
  std::vector<ListedAccount> accounts;
  try {
    const Json document = Json::parse(JsonWithoutStrayBytes(listing));
    for (const Json& user : document.at("Users")) {
      accounts.push_back({user.at("Name").get<std::string>(), GroupOf(user)});
    }
  } catch (const std::exception& error) {
    throw tevra::osa::Exception("the service's account listing cannot be read: %s", error.what());
  }
  return accounts;
}

// The contract has no question for it. But while there is no administrator, every token counts as
// authenticated, and the empty one never belongs to a session.
bool AdministratorExists(tevra::interfaces::ISecurityProvider& provider) {
  return !provider.IsAuthenticated("");
}

}  // namespace vigilactl

#ifndef VIGILACTL_ACCOUNT_LISTING_H_
#define VIGILACTL_ACCOUNT_LISTING_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tevra/interfaces/i_security_provider.h"

namespace vigilactl {

struct ListedAccount {
  std::string name;
  uint32_t group;
};

// All accounts, in the service's order. Throws tevra::osa::Exception when the service cannot answer
// or its listing cannot be read.
std::vector<ListedAccount> ListAccounts(const tevra::interfaces::ISecurityProvider& provider);

// Whether anyone is an administrator; until then the device is open.
bool AdministratorExists(tevra::interfaces::ISecurityProvider& provider);

}  // namespace vigilactl

#endif  // VIGILACTL_ACCOUNT_LISTING_H_

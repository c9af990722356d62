#ifndef VIGILA_GATEWAY_AUTH_GROUP_NAMES_H_
#define VIGILA_GATEWAY_AUTH_GROUP_NAMES_H_

#include <string>
#include <vector>

namespace vigila::gateway {

// The groups that an account counts as, strongest first and separated by commas:
// "operators,viewers". The client library does not tell the group itself; its permissions do.
std::string GroupNames(const std::vector<std::string>& permissions);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_GROUP_NAMES_H_

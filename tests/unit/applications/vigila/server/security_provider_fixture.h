#ifndef VIGILA_SERVER_SECURITY_PROVIDER_FIXTURE_H_
#define VIGILA_SERVER_SECURITY_PROVIDER_FIXTURE_H_

#include <string>
#include <vector>

#include "support/provider_environment.h"

namespace vigila::server {

using Strings = std::vector<std::string>;

// Tests of the provider over a server with an empty store.
class SecurityProviderTest : public support::ProviderTest {
 protected:
  // Whether the session lives, without touching its idle timer.
  bool Lives(const std::string& token) { return Provider().GetUser(token, false) != nullptr; }
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_SECURITY_PROVIDER_FIXTURE_H_

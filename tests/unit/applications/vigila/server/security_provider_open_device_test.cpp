// The provider of a device that no one has set up yet.
#include <gtest/gtest.h>

#include <string>

#include "security_provider_fixture.h"

namespace vigila::server {
namespace {

using SecurityProviderWithoutAdministrator = SecurityProviderTest;

TEST_F(SecurityProviderWithoutAdministrator, AnyTokenIsAuthenticated) {
  EXPECT_TRUE(Provider().IsAuthenticated("NO_TOKEN"));
  EXPECT_TRUE(Provider().IsAuthenticated("12345678"));
  EXPECT_TRUE(Provider().IsAuthenticated(""));
}

TEST_F(SecurityProviderWithoutAdministrator, NoTokenHasCredentials) {
  Add("viewer", "pass", 8);
  const std::string token = Logon("viewer", "pass");
  ASSERT_TRUE(IsToken(token));
  EXPECT_EQ("", Provider().GetCredentials(token));
  EXPECT_EQ("", Provider().GetCredentials("NO_TOKEN"));
}

TEST_F(SecurityProviderWithoutAdministrator, EveryTokenActsForNobody) {
  Add("viewer", "pass", 8);
  const std::string token = Logon("viewer", "pass");
  EXPECT_FALSE(Provider().Authorize(token, "/jpeg/1"));
  EXPECT_TRUE(Provider().Authorize(token, "/system"));
  EXPECT_EQ(Provider().GetAllowedPaths("NO_TOKEN"), Provider().GetAllowedPaths(token));
}

TEST_F(SecurityProviderWithoutAdministrator, SessionOpenedBeforeTheFirstAdministratorCountsAfter) {
  Add("viewer", "pass", 8);
  const std::string token = Logon("viewer", "pass");
  AddAdministrator();
  EXPECT_EQ("viewer", Provider().GetCredentials(token));
}

TEST_F(SecurityProviderWithoutAdministrator, PermissionsAreTheAdministrators) {
  EXPECT_EQ(11u, Provider().GetAllowedPermissions("NO_TOKEN").size());
  EXPECT_EQ(11u, Provider().GetAllowedPermissions("anything").size());
}

TEST_F(SecurityProviderWithoutAdministrator, LoggingOutSucceedsAndKeepsTheSession) {
  Add("viewer", "pass", 8);
  const std::string token = Logon("viewer", "pass");
  EXPECT_TRUE(Provider().Logout(token));
  AddAdministrator();
  EXPECT_EQ("viewer", Provider().GetCredentials(token));
}

}  // namespace
}  // namespace vigila::server

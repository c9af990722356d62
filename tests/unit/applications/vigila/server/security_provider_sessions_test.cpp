// What becomes of sessions.
#include <gtest/gtest.h>

#include <string>

#include "security_provider_fixture.h"

namespace vigila::server {
namespace {

TEST_F(SecurityProviderTest, TokenThatIsUnknownResolvesToNobodyOnlyWhenAsked) {
  AddAdministrator();
  EXPECT_EQ(nullptr, Provider().GetUser("12345678", false));
  EXPECT_EQ(nullptr, Provider().GetUser("NO_TOKEN", false));
  ASSERT_NE(nullptr, Provider().GetUser("12345678", true));
  EXPECT_EQ("nobody", Provider().GetUser("12345678", true)->Name());
  EXPECT_EQ("nobody", Provider().GetUser("NO_TOKEN", true)->Name());
  EXPECT_EQ("nobody", Provider().GetUser("", true)->Name());
}

TEST_F(SecurityProviderTest, NoTokenIsAuthenticatedAndAnUnknownTokenIsNot) {
  AddAdministrator();
  EXPECT_TRUE(Provider().IsAuthenticated("NO_TOKEN"));
  EXPECT_FALSE(Provider().IsAuthenticated("12345678"));
  EXPECT_FALSE(Provider().IsAuthenticated("_EXPIRED"));
  EXPECT_FALSE(Provider().IsAuthenticated(""));
}

TEST_F(SecurityProviderTest, AskingWhetherASessionLivesRestartsItsIdleTimer) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass");
  server_.AdvanceSeconds(1800);
  EXPECT_TRUE(Provider().IsAuthenticated(token));
  server_.AdvanceSeconds(1800);
  EXPECT_TRUE(Provider().IsAuthenticated(token));
  server_.Advance(1800 * 1000000LL + 1);
  EXPECT_FALSE(Provider().IsAuthenticated(token));
}

TEST_F(SecurityProviderTest, ReadingCredentialsAndPathsDoesNotRestartTheIdleTimer) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass");
  server_.AdvanceSeconds(1800);
  EXPECT_EQ("admin", Provider().GetCredentials(token));
  EXPECT_FALSE(Provider().GetAllowedPaths(token).empty());
  EXPECT_EQ(11u, Provider().GetAllowedPermissions(token).size());
  server_.Advance(1);
  EXPECT_EQ("", Provider().GetCredentials(token));
}

TEST_F(SecurityProviderTest, LogoutEndsTheSessionAndNamesTheUser) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass");
  log_.Clear();
  EXPECT_TRUE(Provider().Logout(token));
  EXPECT_EQ(Strings({"Local user 'admin' has successfully logged off."}), Notices());
  EXPECT_EQ("", Provider().GetCredentials(token));
  EXPECT_FALSE(Provider().IsAuthenticated(token));
}

TEST_F(SecurityProviderTest, LogoutWithoutASessionSucceedsAndLogsNothing) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass");
  EXPECT_TRUE(Provider().Logout(token));
  log_.Clear();
  EXPECT_TRUE(Provider().Logout(token));  // twice
  EXPECT_TRUE(Provider().Logout("NO_TOKEN"));
  EXPECT_TRUE(Provider().Logout("12345678"));
  EXPECT_TRUE(Provider().Logout(""));
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(SecurityProviderTest, LogoutEndsOnlyItsOwnSession) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass");
  const std::string other = Logon("admin", "adminpass");
  EXPECT_TRUE(Provider().Logout(token));
  EXPECT_TRUE(Lives(other));
}

TEST_F(SecurityProviderTest, InvalidateEndsTheSessionsOfAUserOrOfAll) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  const std::string admin = Logon("admin", "adminpass");
  const std::string viewer = Logon("viewer", "pass");
  Provider().Invalidate("Viewer");
  EXPECT_TRUE(Lives(viewer));
  Provider().Invalidate("viewer");
  EXPECT_FALSE(Lives(viewer));
  EXPECT_TRUE(Lives(admin));
  Provider().Invalidate("*");
  EXPECT_FALSE(Lives(admin));
}

}  // namespace
}  // namespace vigila::server

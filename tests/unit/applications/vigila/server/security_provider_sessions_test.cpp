// What becomes of sessions.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

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

// Whatever ends sessions is told with their tokens before the operation returns: who keeps answers
// by token must learn which of them are stale.
TEST_F(SecurityProviderTest, EveryEndOfASessionIsTold) {
  AddAdministrator();
  Add("bob", "bob's secret", 8);
  struct Tokens {
    void OnEnd(const std::string& token) { tokens.push_back(token); }
    Strings Take() { return std::exchange(tokens, {}); }
    Strings tokens;
  } ended;
  using Listener =
      tevra::core::VoidObjectMethodDelegate1<Tokens, void (Tokens::*)(const std::string&),
                                             std::string>;
  Provider().AddSessionEndListener(std::make_unique<Listener>(&ended, &Tokens::OnEnd));

  std::string token = Logon("bob", "bob's secret");
  Provider().Logout(token);
  EXPECT_EQ(Strings({token}), ended.Take());
  token = Logon("bob", "bob's secret");
  Provider().Invalidate("bob");
  EXPECT_EQ(Strings({token}), ended.Take());
  token = Logon("bob", "bob's secret");
  Provider().Invalidate("*");
  EXPECT_EQ(Strings({token}), ended.Take());
  token = Logon("bob", "bob's secret");
  ASSERT_EQ(0, Provider().ModifyUsers(support::UsersJson({support::UserJson("bob", 4)})));
  EXPECT_EQ(Strings({token}), ended.Take()) << "another group";
  token = Logon("bob", "bob's secret");
  ASSERT_EQ(
      0, Provider().ModifyUsers(support::UsersJson({support::UserJson("bob", "another one", 4)})));
  EXPECT_EQ(Strings({token}), ended.Take()) << "another password";
  token = Logon("bob", "another one");
  ASSERT_EQ(0, Provider().DeleteUsers({"bob"}));
  EXPECT_EQ(Strings({token}), ended.Take());
  Provider().RemoveSessionEndListeners(&ended);
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

// Logons by password.
#include <gtest/gtest.h>

#include <string>

#include "security_provider_fixture.h"
#include "support/memory/freed_memory_watch.h"

namespace vigila::server {
namespace {

using tevra::interfaces::ISecurityProvider;

TEST_F(SecurityProviderTest, PasswordLogonOpensASession) {
  AddAdministrator();
  log_.Clear();
  const std::string token = Logon("admin", "adminpass");
  ASSERT_TRUE(IsToken(token)) << token;
  EXPECT_EQ("admin", Provider().GetCredentials(token));
  EXPECT_TRUE(Provider().IsAuthenticated(token));
  EXPECT_EQ(Strings({"Local user 'admin' has successfully logged on."}), Notices());
  EXPECT_EQ(Strings({"sending token " + token + " to client"}), Debugs());
}

TEST_F(SecurityProviderTest, PasswordLogonIsLoggedByTheStoreAndByTheProvider) {
  AddAdministrator();
  log_.Clear();
  Logon("admin", "adminpass");
  const Strings expected = {"Local user 'admin' has successfully logged on."};
  EXPECT_EQ(expected, log_.TextsOf("UserMap"));
  EXPECT_EQ(expected, Notices());
}

TEST_F(SecurityProviderTest, LogonAsNobodyGivesNoTokenWithoutAskingTheStore) {
  EXPECT_EQ("NO_TOKEN", Logon("nobody", ""));
  EXPECT_EQ("NO_TOKEN", Logon("nobody", "x", true));
  EXPECT_EQ(0, krand_core_settings_does_key_exist("user.nobody"));  // still not loaded
  EXPECT_TRUE(Notices().empty());
}

TEST_F(SecurityProviderTest, LogonOfAnUnknownUserIsRefused) {
  EXPECT_EQ("NO_TOKEN", Logon("ghost", "pass"));
  EXPECT_EQ(Strings({"Nonexistent user ghost"}), Notices());
}

TEST_F(SecurityProviderTest, LogonWithAWrongPasswordIsRefused) {
  AddAdministrator();
  log_.Clear();
  EXPECT_EQ("NO_TOKEN", Logon("admin", "adminpasS"));
  EXPECT_EQ("NO_TOKEN", Logon("admin", ""));
  EXPECT_EQ("NO_TOKEN", Logon("admin", std::string("adminpass\0", 10)));
  EXPECT_EQ(Strings(3, "Incorrect password specified for local user 'admin'."), Notices());
}

TEST_F(SecurityProviderTest, LogonThatIsNotBase64MatchesNothing) {
  AddAdministrator();
  EXPECT_EQ("NO_TOKEN", Provider().Authenticate(false, "admin", "adminpass"));
  EXPECT_EQ("NO_TOKEN", Provider().Authenticate(false, "YWRtaW4", "YWRtaW5wYXNz"));  // no padding
  EXPECT_EQ("NO_TOKEN", Provider().Authenticate(false, "", ""));
  EXPECT_TRUE(IsToken(Provider().Authenticate(false, "YWRtaW4=", "YWRtaW5wYXNz")));
}

TEST_F(SecurityProviderTest, LogonTakesNamesAndPasswordsOfAnyBytes) {
  AddAdministrator();
  EXPECT_EQ("NO_TOKEN", Logon(std::string("admin\0", 6), "adminpass"));
  EXPECT_EQ("NO_TOKEN", Logon("\xff\xfe", "\xff"));
  EXPECT_EQ("NO_TOKEN", Logon(std::string(100000, 'n'), std::string(100000, 'p')));
  EXPECT_EQ("NO_TOKEN", Logon("%n%s", "%n"));
}

TEST_F(SecurityProviderTest, LogonOverwritesThePasswordBeforeItsMemoryIsGivenBack) {
  constexpr char kPassword[] = "correct horse battery staple";
  AddAdministrator();
  Add("alice", kPassword, 8);
  const std::string password64 = krand::lib::Base64::Encode(kPassword);
  const support::FreedMemoryWatch watch(kPassword);
  EXPECT_TRUE(IsToken(Provider().Authenticate(true, "YWxpY2U=", password64)));
  EXPECT_TRUE(IsToken(Provider().Authenticate(true, "YWxpY2U=", password64)));
  EXPECT_EQ("NO_TOKEN", Provider().Authenticate(false, "YWRtaW4=", password64));
  EXPECT_EQ("NO_TOKEN", Provider().Authenticate(false, "Z2hvc3Q=", password64));
  EXPECT_EQ(0, watch.Found());
}

TEST_F(SecurityProviderTest, TwoReusingLogonsShareAToken) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass", true);
  log_.Clear();
  EXPECT_EQ(token, Logon("admin", "adminpass", true));
  EXPECT_EQ(Strings({"username/password token cached " + token + " to client"}), Debugs());
  EXPECT_TRUE(Notices().empty());
}

TEST_F(SecurityProviderTest, TwoLogonsWithoutReuseHaveTwoTokens) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass");
  const std::string other = Logon("admin", "adminpass");
  EXPECT_TRUE(IsToken(other));
  EXPECT_NE(token, other);
  EXPECT_NE(token, Logon("admin", "adminpass", true));  // neither session may be shared
}

TEST_F(SecurityProviderTest, ReusingLogonWithAnotherPasswordIsRefused) {
  AddAdministrator();
  Logon("admin", "adminpass", true);
  EXPECT_EQ("NO_TOKEN", Logon("admin", "wrong", true));
}

TEST_F(SecurityProviderTest, ReusingLogonRestartsTheIdleTimer) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass", true);
  server_.AdvanceSeconds(1800);
  EXPECT_EQ(token, Logon("admin", "adminpass", true));
  server_.AdvanceSeconds(1800);
  EXPECT_TRUE(Lives(token));
  server_.Advance(1);
  EXPECT_FALSE(Lives(token));
}

TEST_F(SecurityProviderTest, ReusedLogonSucceedsEvenWhenTheAccountIsLocked) {
  Provider().EnforcePasswordPolicy(true);
  AddAdministrator();
  Add("viewer", "pass", 8);
  const std::string token = Logon("viewer", "pass", true);
  ASSERT_TRUE(IsToken(token));
  for (const char* expected : {"NO_TOKEN", "NO_TOKEN", "DISABLED"}) {
    server_.AdvanceSeconds(5);
    EXPECT_EQ(expected, Logon("viewer", "wrong"));
  }
  server_.AdvanceSeconds(5);
  log_.Clear();
  EXPECT_EQ("DISABLED", Logon("viewer", "pass"));
  EXPECT_EQ(Strings({"User account 'viewer' is disabled; too many invalid passwords."}), Notices());
  EXPECT_EQ(token, Logon("viewer", "pass", true));
  Provider().Invalidate("viewer");
  EXPECT_EQ("DISABLED", Logon("viewer", "pass", true));
}

TEST_F(SecurityProviderTest, ExpiredPasswordHasATokenOfItsOwn) {
  Provider().EnforcePasswordPolicy(true);
  AddAdministrator();
  server_.AdvanceSeconds(60 * 86400);
  EXPECT_TRUE(IsToken(Logon("admin", "adminpass")));
  server_.AdvanceSeconds(1);
  log_.Clear();
  EXPECT_EQ("_EXPIRED", Logon("admin", "adminpass"));
  EXPECT_EQ(Strings({"Password has expired for local user 'admin'."}), Notices());
}

TEST_F(SecurityProviderTest, EnrollingNobodyLogsButOpensNoSession) {
  EXPECT_EQ("NO_TOKEN", Provider().Enroll("nobody", "", ISecurityProvider::kNobody, false));
  EXPECT_EQ(Strings({"Local user 'nobody' has successfully logged on."}), Notices());
  EXPECT_EQ(Strings({"sending token NO_TOKEN to client"}), Debugs());
}

TEST_F(SecurityProviderTest, EnrolledRecordHoldsTheGroupsPermissionsAndTheDigest) {
  AddAdministrator();
  const std::string token = Provider().Enroll("anybody", "d1", ISecurityProvider::kViewers, true);
  const model::User* user = Provider().GetUser(token, false);
  ASSERT_NE(nullptr, user);
  EXPECT_EQ("anybody", user->Name());
  EXPECT_EQ("d1", user->Digest());
  EXPECT_EQ(ISecurityProvider::kViewers, user->GetGroup());
  EXPECT_EQ(4u, user->Permissions().size());
  EXPECT_TRUE(user->IsReusable());
  const std::string other = Provider().Enroll("anybody", "d1", ISecurityProvider::kViewers, false);
  EXPECT_FALSE(Provider().GetUser(other, false)->IsReusable());
}

TEST_F(SecurityProviderTest, SessionOfALogonCarriesTheHttpDigestHa1) {
  AddAdministrator();
  Add("alice", "secret", 8);
  const model::User* user = Provider().GetUser(Logon("alice", "secret"), false);
  ASSERT_NE(nullptr, user);
  EXPECT_EQ("3a503be02c866055123c57328926435e", user->Digest());
}

}  // namespace
}  // namespace vigila::server

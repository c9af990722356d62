#include "vigila/server/security_provider.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "freed_memory_watch.h"
#include "support/provider_environment.h"
#include "tevra/osa/exception.h"
#include "vigila/server/rule_manager.h"
#include "vigila/server/session_manager.h"

namespace vigila::server {
namespace {

using support::ChangeRecorder;
using support::ServerUnderTest;
using support::UserJson;
using support::UsersJson;
using tevra::interfaces::ISecurityProvider;
using Strings = std::vector<std::string>;

const Strings kNobodyPermissions = {"00d8dc27-61d1-4b7d-85a8-519efb70d712",
                                    "d6f86cee-5c0c-41ce-a91f-b8563a2b94d6"};
const Strings kViewerPermissions = {
    "00d8dc27-61d1-4b7d-85a8-519efb70d712", "252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a",
    "88049574-465a-4f41-89d4-d6d517e8c218", "d6f86cee-5c0c-41ce-a91f-b8563a2b94d6"};

class SecurityProviderTest : public support::ProviderTest {
 protected:
  // Whether the session lives, without touching its idle timer.
  bool Lives(const std::string& token) { return Provider().GetUser(token, false) != nullptr; }
};

// A device that nobody has set up yet.
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

TEST_F(SecurityProviderTest, PermissionsAreTextsInTheOrderOfTheirBytes) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  EXPECT_EQ(kViewerPermissions, Provider().GetAllowedPermissions(Logon("viewer", "pass")));
  EXPECT_EQ(kNobodyPermissions, Provider().GetAllowedPermissions("NO_TOKEN"));
  EXPECT_EQ(kNobodyPermissions, Provider().GetAllowedPermissions("00000001"));
  EXPECT_EQ(11u, Provider().GetAllowedPermissions(Logon("admin", "adminpass")).size());
}

// Devices with unique passwords.
class SecurityProviderOnUniquePasswordDevice : public testing::Test {
 protected:
  SecurityProviderOnUniquePasswordDevice() {
    platform_.Set("DeviceInformation", "features", "SB327");
  }

  support::PlatformFixture platform_;
  support::AtRestKeyFixture key_;
};

TEST_F(SecurityProviderOnUniquePasswordDevice, NobodyHasNobodysPermissionsFromTheStart) {
  ServerUnderTest server;
  EXPECT_EQ(kNobodyPermissions, server.Provider().GetAllowedPermissions("NO_TOKEN"));
}

TEST_F(SecurityProviderOnUniquePasswordDevice, ProviderIsNotBuiltWhenTheDeviceCannotAnswer) {
  platform_.Set("DeviceInformation", "present", "false");
  support::CapturingLog log;
  try {
    ServerUnderTest server;
    FAIL() << "built";
  } catch (const tevra::osa::Exception& error) {
    EXPECT_STREQ("DeviceInformation: Service Not Available.", error.what());
  }
  // An environment that could not be built leaves the platform as it was then.
  EXPECT_EQ(KRAND_CORE_OK, krand_core_settings_deinit());
  EXPECT_EQ(KRAND_CORE_OK, krand_core_deinit());
}

TEST_F(SecurityProviderTest, ConstructionLeavesTheSettingsAlone) {
  EXPECT_EQ(0, krand_core_settings_does_key_exist("user.nobody"));
  EXPECT_EQ("{\"Users\":[{\"Name\":\"nobody\",\"Group\":16}]}", Provider().GetUsers());
  EXPECT_EQ(1, krand_core_settings_does_key_exist("user.nobody"));
}

TEST_F(SecurityProviderTest, OperationsOfOtherDevicesAreUnimplemented) {
  const ISecurityProvider& provider = Provider();
  try {
    provider.AllowHttpDigest();
    FAIL() << "returned";
  } catch (const tevra::osa::Exception& error) {
    EXPECT_EQ(tevra::osa::Exception::kUnimplemented, error.code());
  }
  try {
    provider.TestLdap("", "", "", 0, "", "", "", "", "", "", "");
    FAIL() << "returned";
  } catch (const tevra::osa::Exception& error) {
    EXPECT_EQ(tevra::osa::Exception::kUnimplemented, error.code());
  }
}

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
  const FreedMemoryWatch watch(kPassword);
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

TEST_F(SecurityProviderTest, ProtectionDoesNotDependOnAccounts) {
  EXPECT_TRUE(Provider().IsProtected("/inject.cgi"));
  EXPECT_TRUE(Provider().IsProtected("/jpeg/1"));
  EXPECT_FALSE(Provider().IsProtected("/system"));
  EXPECT_FALSE(Provider().IsProtected("/control/ptz"));
}

TEST_F(SecurityProviderTest, AuthorizeFollowsTheRulesForEachAccount) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  const std::string admin = Logon("admin", "adminpass");
  const std::string viewer = Logon("viewer", "pass");
  const struct {
    const char* path;
    bool admin, viewer, nobody;
  } rows[] = {{"/inject.cgi", true, false, false},  {"/jpeg/1", true, true, false},
              {"/rtsp/stream1", true, true, false}, {"/system", true, true, true},
              {"/onvif", true, true, true},         {"/no/rule", true, true, true}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.admin, Provider().Authorize(admin, row.path)) << row.path;
    EXPECT_EQ(row.viewer, Provider().Authorize(viewer, row.path)) << row.path;
    EXPECT_EQ(row.nobody, Provider().Authorize("NO_TOKEN", row.path)) << row.path;
    EXPECT_EQ(row.nobody, Provider().Authorize("12345678", row.path)) << row.path;
  }
}

TEST_F(SecurityProviderTest, GrantedAuthorizeRefreshesTheSessionAndSaysSo) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass");
  server_.AdvanceSeconds(1800);
  log_.Clear();
  EXPECT_TRUE(Provider().Authorize(token, "/inject.cgi"));
  EXPECT_EQ(Strings({"refreshing token " + token + " via authorize",
                     "authorize " + token + " /inject.cgi -> true"}),
            Debugs());
  server_.AdvanceSeconds(1800);
  EXPECT_TRUE(Lives(token));
}

TEST_F(SecurityProviderTest, RefusedAuthorizeDoesNotRefreshTheSession) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  const std::string token = Logon("viewer", "pass");
  server_.AdvanceSeconds(1800);
  log_.Clear();
  EXPECT_FALSE(Provider().Authorize(token, "/inject.cgi"));
  EXPECT_EQ(Strings({"authorize " + token + " /inject.cgi -> false"}), Debugs());
  server_.Advance(1);
  EXPECT_FALSE(Lives(token));
}

TEST_F(SecurityProviderTest, AuthorizeByNobodyNeverRefreshes) {
  AddAdministrator();
  log_.Clear();
  EXPECT_TRUE(Provider().Authorize("NO_TOKEN", "/system"));
  EXPECT_TRUE(Provider().Authorize("12345678", "/system"));
  EXPECT_EQ(Strings({"authorize NO_TOKEN /system -> true", "authorize 12345678 /system -> true"}),
            Debugs());
}

TEST_F(SecurityProviderTest, SessionThatExpiredIsAuthorizedAsNobody) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass");
  server_.Advance(1800 * 1000000LL + 1);
  EXPECT_FALSE(Provider().Authorize(token, "/inject.cgi"));
  EXPECT_TRUE(Provider().Authorize(token, "/system"));
}

TEST_F(SecurityProviderTest, AllowedPathsAreThoseOfTheAccount) {
  AddAdministrator();
  EXPECT_EQ(Strings({"/control", "/control/*", "/halvard-instrument", "/halvard-instrument/cgi",
                     "/halvard-instrument/cgi/*", "/inject.cgi", "/onvif", "/onvif/*", "/system"}),
            Provider().GetAllowedPaths(Logon("admin", "adminpass")));
  // Everything but the administrators' path: the two permissions in use belong to everybody.
  EXPECT_EQ(Strings({"/control", "/control/*", "/halvard-instrument", "/halvard-instrument/cgi",
                     "/halvard-instrument/cgi/*", "/onvif", "/onvif/*", "/system"}),
            Provider().GetAllowedPaths("NO_TOKEN"));
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

TEST_F(SecurityProviderTest, ExpirationComesFromTheStore) {
  Provider().EnforcePasswordPolicy(true);
  AddAdministrator();
  std::string expires = "before";
  EXPECT_EQ(-60, Provider().GetExpiration("admin", expires));
  EXPECT_EQ("2027-03-16T08:00:00Z", expires);
  EXPECT_EQ(0x7fffffff, Provider().GetExpiration("ghost", expires));
  EXPECT_EQ("", expires);
}

TEST_F(SecurityProviderTest, PasswordCheckComesFromTheStore) {
  AddAdministrator();
  EXPECT_EQ(0, Provider().ValidatePassword("admin", "", "long enough"));
  EXPECT_EQ(5, Provider().ValidatePassword("admin", "", "abc"));
  EXPECT_EQ(6, Provider().ValidatePassword("admin", "", std::string(65, 'x')));
  EXPECT_EQ(8, Provider().ValidatePassword("nobody", "", "abcd"));
  EXPECT_EQ(18, Provider().ValidatePassword("admin", "wrong", "abcd"));
}

TEST_F(SecurityProviderTest, PassphrasesComeFromTheStore) {
  EXPECT_EQ("", Provider().AddPassphrase("", "empty"));
  const std::string id = Provider().AddPassphrase("open \"sesame\"", "cave");
  ASSERT_EQ(37u, id.size());
  EXPECT_EQ("open \"sesame\"", Provider().GetPassphrase(id));
  EXPECT_NE(std::string::npos, Provider().GetPassphrases().find(id));
  EXPECT_NE(std::string::npos, Provider().GetPassphrases().find("cave"));
  EXPECT_TRUE(Provider().DeletePassphrase(id));
  EXPECT_FALSE(Provider().DeletePassphrase(id));
  EXPECT_EQ("", Provider().GetPassphrase(id));
}

TEST_F(SecurityProviderTest, StoreCheckPassesOnAnEmptyAndOnAFilledStore) {
  EXPECT_NO_THROW(Provider().CheckStore());
  AddAdministrator();
  EXPECT_NO_THROW(Provider().CheckStore());
}

TEST_F(SecurityProviderTest, MalformedAccountFailsOperationsUntilItIsMended) {
  ASSERT_EQ(KRAND_CORE_OK, krand_core_settings_set_json_value("user.bad", "{\"Group\":1}"));
  EXPECT_NO_THROW(Provider().CheckStore());
  EXPECT_ANY_THROW(Provider().GetUsers());
  EXPECT_ANY_THROW(Provider().IsAuthenticated("12345678"));
  EXPECT_ANY_THROW(Provider().Authorize("NO_TOKEN", "/system"));
  EXPECT_ANY_THROW(Provider().AddUsers(UsersJson({UserJson("admin", "adminpass", 1)})));
  ASSERT_EQ(KRAND_CORE_OK, krand_core_settings_delete_key("user.bad"));
  AddAdministrator();
  EXPECT_TRUE(IsToken(Logon("admin", "adminpass")));
}

TEST_F(SecurityProviderTest, DeletingEndsAccountAndSessionsAndIsAnnounced) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  const std::string token = Logon("viewer", "pass");
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(0, Provider().DeleteUsers({"viewer"}));
  EXPECT_EQ(std::vector<bool>{true}, recorder.Values());
  EXPECT_FALSE(Lives(token));
  EXPECT_EQ("NO_TOKEN", Logon("viewer", "pass"));
  EXPECT_EQ(0, krand_core_settings_does_key_exist("user.viewer"));
  EXPECT_EQ(10, Provider().DeleteUsers({"viewer"}));
}

TEST_F(SecurityProviderTest, DeletingNobodyDeletesNoneOfTheOthers) {
  AddAdministrator();
  Add("alice", "secret", 8);
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(11, Provider().DeleteUsers({"alice", "nobody"}));
  EXPECT_TRUE(IsToken(Logon("alice", "secret")));
  EXPECT_EQ(std::vector<bool>(), recorder.Values());
}

TEST_F(SecurityProviderTest, FirstNameThatCannotBeDeletedDecides) {
  AddAdministrator();
  Add("alice", "secret", 8);
  EXPECT_EQ(10, Provider().DeleteUsers({"alice", "ghost", "nobody"}));
  EXPECT_EQ(11, Provider().DeleteUsers({"alice", "nobody", "ghost"}));
  EXPECT_EQ(10, Provider().DeleteUsers({""}));
  EXPECT_EQ(10, Provider().DeleteUsers({std::string("alice\0", 6)}));
  EXPECT_TRUE(IsToken(Logon("alice", "secret")));
}

TEST_F(SecurityProviderTest, DeletingNothingSucceedsAndIsAnnounced) {
  AddAdministrator();
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(0, Provider().DeleteUsers({}));
  EXPECT_EQ(std::vector<bool>{true}, recorder.Values());
}

TEST_F(SecurityProviderTest, LastAdministratorIsNotDeletedAndNothingIsAnnounced) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(11, Provider().DeleteUsers({"viewer", "admin"}));
  EXPECT_EQ(std::vector<bool>(), recorder.Values());
  EXPECT_TRUE(IsToken(Logon("viewer", "pass")));
  Add("second", "adminpass", 1);
  EXPECT_EQ(0, Provider().DeleteUsers({"admin"}));
}

TEST_F(SecurityProviderTest, OneNameTwiceIsDeletedOnce) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  EXPECT_EQ(0, Provider().DeleteUsers({"viewer", "viewer"}));
  EXPECT_EQ(10, Provider().DeleteUsers({"viewer"}));
}

TEST_F(SecurityProviderTest, ListenersRunWhileTheListenerListIsLocked) {
  // A listener of another object cannot be removed while listeners run: the removal, started by
  // the listener itself, is seen to end only after the listener has returned.
  class Remover {
   public:
    explicit Remover(ISecurityProvider& provider) : provider_(provider) {}
    ~Remover() { remover_.join(); }
    void OnChange(const bool&) {
      running_ = true;
      remover_ = std::thread([this] {
        started_ = true;
        provider_.RemoveChangeListeners(this);
        removed_while_running_ = running_.load();
      });
      while (!started_) std::this_thread::yield();
      for (int i = 0; i < 1000; ++i) std::this_thread::yield();
      running_ = false;
    }
    bool RemovedWhileRunning() {
      remover_.join();
      remover_ = std::thread([] {});
      return removed_while_running_;
    }

   private:
    ISecurityProvider& provider_;
    std::atomic<bool> running_ = false;
    std::atomic<bool> started_ = false;
    std::atomic<bool> removed_while_running_ = false;
    std::thread remover_;
  };
  AddAdministrator();
  Remover remover(Provider());
  using Delegate =
      tevra::core::VoidObjectMethodDelegate1<Remover, void (Remover::*)(const bool&), bool>;
  Provider().AddChangeListener(std::make_unique<Delegate>(&remover, &Remover::OnChange));
  EXPECT_EQ(0, Provider().DeleteUsers({}));
  EXPECT_FALSE(remover.RemovedWhileRunning());
}

}  // namespace
}  // namespace vigila::server

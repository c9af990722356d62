// The state of accounts, and passwords.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "administration_fixture.h"
#include "support/change_recorder.h"
#include "support/settings_fixture.h"

namespace vigila::server {
namespace {

constexpr int64_t kStart = support::ServerUnderTest::kStart;
constexpr int64_t kDay = 86400;

TEST_F(AdministrationTest, AnAccountIsShownWithAllThatIsKnownOfIt) {
  EXPECT_EQ(administration_.GetAccount(Role(), "bob"),
            "{\"Code\":0,\"Account\":{\"Name\":\"bob\",\"Group\":8,\"GroupName\":\"viewers\","
            "\"Passwordless\":false,\"Locked\":false,\"LockedSince\":null,\"LockedUntil\":null,"
            "\"WrongPasswords\":0,\"Expired\":false,\"Expires\":1805184000,"
            "\"PasswordSet\":1800000000,\"LastLogon\":null,\"Sessions\":0},"
            "\"LogonsKnownSince\":1800000000}");
}

TEST_F(AdministrationTest, LogonsAreKnownFromTheStartOfTheServerOn) {
  EXPECT_TRUE(Account("bob")["LastLogon"].is_null());
  server_.AdvanceSeconds(10);
  TokenOf("bob");
  server_.AdvanceSeconds(10);
  TokenOf("bob");
  Logon("bob", "wrong password");
  EXPECT_EQ(Account("bob")["LastLogon"], kStart + 20);
  EXPECT_EQ(Account("bob")["Sessions"], 2);
  // A change of the account makes no one forget.
  ASSERT_EQ(0, Provider().ModifyUsers(support::UsersJson({support::UserJson("bob", 4)})));
  EXPECT_EQ(Account("bob")["LastLogon"], kStart + 20);
  EXPECT_EQ(Account("bob")["Sessions"], 0);
}

TEST_F(AdministrationTest, ALockedAccountIsShownWithWhyAndSinceWhen) {
  LockOut("bob");
  const Json bob = Account("bob");
  EXPECT_TRUE(bob["Locked"]);
  EXPECT_EQ(bob["WrongPasswords"], 3);
  EXPECT_EQ(bob["LockedSince"], kStart + 15);
  EXPECT_TRUE(bob["LockedUntil"].is_null());
}

TEST_F(AdministrationTest, ALockedAdministratorIsShownWithTheEndOfTheLock) {
  LockOut("admin");
  EXPECT_TRUE(Account("admin")["Locked"]);
  EXPECT_EQ(Account("admin")["LockedUntil"], kStart + 15 + 900);
  const std::string stored = *support::SettingsFixture::GetJson("user.admin");
  server_.AdvanceSeconds(900);
  EXPECT_FALSE(Account("admin")["Locked"]);
  EXPECT_TRUE(Account("admin")["LockedSince"].is_null());
  EXPECT_EQ(*support::SettingsFixture::GetJson("user.admin"), stored) << "looking changed it";
}

TEST_F(AdministrationTest, UnlockingForgetsWrongPasswordsAndKeepsThePassword) {
  LockOut("bob");
  server_.AdvanceSeconds(5);
  ASSERT_EQ(TokenOf("bob"), "DISABLED");
  EXPECT_EQ(administration_.UnlockAccount(Role(), "bob"), "{\"Code\":0,\"WasLocked\":true}");
  EXPECT_TRUE(IsToken(TokenOf("bob")));
  EXPECT_FALSE(Account("bob")["Locked"]);
  EXPECT_EQ(Account("bob")["WrongPasswords"], 0);
  EXPECT_EQ(log_.TextsOf("UserMap", tevra::core::Logger::kNotice).back(),
            "Local user 'bob' has successfully logged on.");
  EXPECT_TRUE(log_.Contains("Local user 'bob' has been unlocked."));
}

TEST_F(AdministrationTest, UnlockingIsKeptInTheStore) {
  const std::string before = *support::SettingsFixture::GetJson("user.bob");
  LockOut("bob");
  ASSERT_NE(*support::SettingsFixture::GetJson("user.bob"), before);
  administration_.UnlockAccount(Role(), "bob");
  EXPECT_EQ(*support::SettingsFixture::GetJson("user.bob"), before);
}

TEST_F(AdministrationTest, UnlockingWhatIsNotLockedChangesNothing) {
  EXPECT_EQ(administration_.UnlockAccount(Role(), "bob"), "{\"Code\":0,\"WasLocked\":false}");
  EXPECT_EQ(administration_.UnlockAccount(Role(), "nobody"), "{\"Code\":0,\"WasLocked\":false}");
  EXPECT_FALSE(log_.Contains("has been unlocked"));
}

TEST_F(AdministrationTest, AnExpiredAccountIsShownAsExpired) {
  server_.AdvanceSeconds(60 * kDay);
  EXPECT_FALSE(Account("bob")["Expired"]);
  server_.AdvanceSeconds(1);
  EXPECT_TRUE(Account("bob")["Expired"]);
  EXPECT_EQ(Account("bob")["Expires"], kStart + 60 * kDay);
}

TEST_F(AdministrationTest, AnAccountThatDoesNotExistIsNamedByACode) {
  for (const std::string& name :
       {std::string(), std::string("carl"), std::string("bob\0x", 5), std::string(65536, 'n')}) {
    EXPECT_EQ(administration_.GetAccount(Role(), name), "{\"Code\":10}");
    EXPECT_EQ(administration_.UnlockAccount(Role(), name), "{\"Code\":10}");
    EXPECT_EQ(administration_.ExplainAccount(Role(), name, "/"), "{\"Code\":10}");
    EXPECT_EQ(administration_.EndSessions(Role(), name, false), "{\"Code\":10}");
  }
}

class OlderStore : public support::ProviderTest {
 protected:
  using Caller = tevra::interfaces::IAdministration::Caller;
};

// As left by a device that took names of any bytes.
TEST_F(OlderStore, ShowsANameThatIsNotUtf8InBase64) {
  const std::string name = "b\xff\xfe";
  support::SettingsFixture::PutJson("user." + name, "{\"Groups\":8}");
  Administration administration(server_.Env());
  Caller role("");
  role.holds_admin_role = true;
  const Json answer = Json::parse(administration.GetAccount(role, name));
  EXPECT_EQ(answer["Account"]["NameBase64"], "Yv/+");
  EXPECT_FALSE(answer["Account"].contains("Name"));
  EXPECT_TRUE(answer["Account"]["Passwordless"]);
  EXPECT_TRUE(answer["Account"]["Expires"].is_null());
  const Json first = Json::parse(administration.GetAccounts(role, "", 1));
  EXPECT_EQ(first["Accounts"][0]["NameBase64"], "Yv/+");
  EXPECT_EQ(Json::parse(administration.GetAccounts(role, first["Next"], 1))["Accounts"][0]["Name"],
            "nobody");
}

TEST_F(AdministrationTest, AccountsComeInPagesInTheOrderOfTheirNames) {
  std::vector<std::string> names;
  std::string cursor;
  int pages = 0;
  do {
    const Json page = Parse(administration_.GetAccounts(Role(), cursor, 2));
    EXPECT_EQ(page["Code"], 0);
    EXPECT_EQ(page["Total"], 4);
    EXPECT_LE(page["Accounts"].size(), 2u);
    for (const Json& account : page["Accounts"]) names.push_back(account["Name"]);
    cursor = page.value("Next", "");
    ++pages;
  } while (!cursor.empty());
  EXPECT_EQ(names, (std::vector<std::string>{"admin", "bob", "nobody", "olga"}));
  EXPECT_EQ(pages, 2);
}

TEST_F(AdministrationTest, AnAccountThatIsDeletedBetweenTwoPagesNeitherRepeatsNorHidesOthers) {
  const Json first = Parse(administration_.GetAccounts(Role(), "", 2));
  ASSERT_EQ(first["Accounts"][1]["Name"], "bob");
  ASSERT_EQ(0, Provider().DeleteUsers({"bob"}));
  const Json second = Parse(administration_.GetAccounts(Role(), first["Next"], 2));
  EXPECT_EQ(second["Accounts"][0]["Name"], "nobody");
  EXPECT_EQ(second["Accounts"][1]["Name"], "olga");
  EXPECT_FALSE(second.contains("Next"));
}

TEST_F(AdministrationTest, ACursorThatNoPageHasGivenIsMalformed) {
  for (const std::string& cursor :
       {std::string("bob"), std::string("Ym9i\n"), std::string("?"), std::string(65536, '=')}) {
    EXPECT_EQ(administration_.GetAccounts(Role(), cursor, 0), "{\"Code\":12}") << cursor;
    EXPECT_EQ(administration_.GetSessions(Role(), "", cursor, 0), "{\"Code\":12}") << cursor;
  }
}

TEST_F(AdministrationTest, AProposedPasswordIsJudgedWithReasons) {
  EXPECT_EQ(administration_.CheckPassword(Role(), "", "Abc123!@"),
            "{\"Code\":0,\"Accepted\":true,\"Verdict\":0,\"Score\":97,\"Reasons\":[]}");
  EXPECT_EQ(administration_.CheckPassword(Role(), "", "aaa"),
            "{\"Code\":0,\"Accepted\":false,\"Verdict\":5,\"Score\":0,\"Reasons\":[\"too-short\","
            "\"letters-only\",\"no-digit\",\"no-symbol\",\"one-case\",\"repeats\"]}");
  EXPECT_EQ(administration_.CheckPassword(Role(), "bob", "Abc123!@"),
            "{\"Code\":0,\"Accepted\":false,\"Verdict\":15,\"Score\":97,"
            "\"Reasons\":[\"too-young\"]}");
  EXPECT_EQ(Parse(administration_.CheckPassword(Role(), "nobody", "Abc123!@"))["Verdict"], 8);
  EXPECT_EQ(Parse(administration_.CheckPassword(Role(), "carl", "Abc123!@"))["Verdict"], 0);
}

TEST_F(AdministrationTest, APasswordOfTheHistoryIsJudgedAsUsedBefore) {
  server_.AdvanceSeconds(kDay);
  ASSERT_EQ(0,
            Provider().ModifyUsers(support::UsersJson({support::UserJson("bob", "Second#2", 8)})));
  server_.AdvanceSeconds(kDay);
  const Json verdict = Parse(administration_.CheckPassword(As("admin"), "bob", "bobpass1"));
  EXPECT_FALSE(verdict["Accepted"]);
  EXPECT_EQ(verdict["Verdict"], 14);
  EXPECT_EQ(verdict["Reasons"][0], "used-before");
}

TEST_F(AdministrationTest, APasswordThatIsTooLongIsNotScored) {
  EXPECT_TRUE(
      Parse(administration_.CheckPassword(Role(), "", std::string(64, 'x'))).contains("Score"));
  for (const size_t size : {size_t{65}, size_t{1} << 20}) {
    EXPECT_EQ(administration_.CheckPassword(Role(), "", std::string(size, 'x')),
              "{\"Code\":0,\"Accepted\":false,\"Verdict\":6,\"Reasons\":[\"too-long\"]}");
  }
}

TEST_F(AdministrationTest, APersonChangesItsOwnPasswordWithThePresentOne) {
  server_.AdvanceSeconds(kDay);
  support::ChangeRecorder changes;
  changes.Attach(Provider());
  const Caller bob = As("bob");
  const std::string other = TokenOf("bob");
  EXPECT_EQ(administration_.ChangePassword(bob, "bobpass1", "Second#2"),
            "{\"Code\":0,\"Changed\":true}");
  EXPECT_EQ(changes.Values(), (std::vector<bool>{true}));
  EXPECT_FALSE(Lives(bob.token));
  EXPECT_FALSE(Lives(other));
  EXPECT_TRUE(IsToken(Logon("bob", "Second#2")));
  EXPECT_EQ(Account("bob")["Group"], 8);
  Provider().RemoveChangeListeners(&changes);
}

TEST_F(AdministrationTest, AChangeOfThePasswordIsRefusedAsByHand) {
  const Caller bob = As("bob");
  EXPECT_EQ(administration_.ChangePassword(bob, "bobpass1", "Second#2"), "{\"Code\":15}");
  server_.AdvanceSeconds(kDay);
  const Caller again = As("bob");
  EXPECT_EQ(administration_.ChangePassword(again, "bobpass1", "abc"), "{\"Code\":5}");
  EXPECT_EQ(administration_.ChangePassword(again, "bobpass1", std::string(65, 'x')),
            "{\"Code\":6}");
  EXPECT_EQ(administration_.ChangePassword(again, "bobpass1", "bobpass1"),
            "{\"Code\":0,\"Changed\":false}");
  EXPECT_TRUE(Lives(again.token));
}

// Whoever finds a session left open must not find the password through it more easily.
TEST_F(AdministrationTest, WrongPresentPasswordsLockTheAccount) {
  const Caller bob = As("bob");
  EXPECT_EQ(administration_.ChangePassword(bob, "", "Second#2"), "{\"Code\":18}");
  EXPECT_EQ(Account("bob")["WrongPasswords"], 0);
  EXPECT_EQ(administration_.ChangePassword(bob, "wrong 1", "Second#2"), "{\"Code\":18}");
  EXPECT_EQ(administration_.ChangePassword(bob, "wrong 2", "Second#2"), "{\"Code\":18}");
  EXPECT_EQ(administration_.ChangePassword(bob, "wrong 3", "Second#2"), "{\"Code\":16}");
  EXPECT_EQ(administration_.ChangePassword(bob, "bobpass1", "Second#2"), "{\"Code\":16}");
  EXPECT_TRUE(Account("bob")["Locked"]);
}

}  // namespace
}  // namespace vigila::server

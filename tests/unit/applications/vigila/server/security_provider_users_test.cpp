// The administration of accounts by JSON documents.
#include <gtest/gtest.h>

#include <memory>

#include "support/memory/freed_memory_watch.h"
#include "support/provider_environment.h"
#include "support/settings_faults.h"

namespace vigila::server {
namespace {

using support::ChangeRecorder;
using support::UserJson;
using support::UsersJson;
using namespace std::string_literals;

const char kOnlyNobody[] = "{\"Users\":[{\"Name\":\"nobody\",\"Group\":16}]}";

class SecurityProviderUsers : public support::ProviderTest {
 protected:
  int AddOne(const std::string& name, const std::string& password, int group) {
    return Provider().AddUsers(UsersJson({UserJson(name, password, group)}));
  }
  int Modify(std::initializer_list<std::string> entries) {
    return Provider().ModifyUsers(UsersJson(entries));
  }
  int GroupOf(const std::string& name) {
    const std::string users = Provider().GetUsers();
    const std::string start = "{\"Name\":\"" + name + "\",\"Group\":";
    const size_t at = users.find(start);
    return at == std::string::npos ? -1 : std::stoi(users.substr(at + start.size()));
  }
};

TEST_F(SecurityProviderUsers, AddedAccountIsThereAndAnnounced) {
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(0, AddOne("ab", "pass", 8));
  EXPECT_EQ(std::vector<bool>{true}, recorder.Values());
  EXPECT_EQ("{\"Users\":[{\"Name\":\"ab\",\"Group\":8},{\"Name\":\"nobody\",\"Group\":16}]}",
            Provider().GetUsers());
  EXPECT_TRUE(IsToken(Logon("ab", "pass")));
}

TEST_F(SecurityProviderUsers, DocumentsThatAreNoneAreMalformed) {
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  for (const std::string& text : {
           std::string(),
           std::string("not JSON"),
           std::string("{"),
           std::string("[]"),
           std::string("[{\"Name\":\"ab\",\"Password\":\"pass\",\"Group\":8}]"),
           std::string("null"),
           std::string("\"Users\""),
           std::string("{}"),
           std::string("{\"users\":[{\"Name\":\"ab\",\"Password\":\"pass\",\"Group\":8}]}"),
           std::string("{\"Users\":[]}"),
           std::string("{\"Users\":{}}"),
           std::string("{\"Users\":null}"),
           std::string("{\"Users\":\"ab\"}"),
           std::string("{\"Users\":[\"ab\"]}"),
           std::string("{\"Users\":[[]]}"),
           std::string("{\"Users\":[null]}"),
           std::string("{\"Users\":[{}]}"),
           UsersJson({UserJson("ab", "pass", 8)}) + "x",
           UsersJson({UserJson("ab", "pass", 8)}).substr(0, 30),
           std::string("{\"Users\":[{\"Name\":\"a\xff\xfe\",\"Password\":\"pass\",\"Group\":8}]}"),
           std::string(1 << 20, '['),
           "{\"Users\":" + std::string(1 << 20, '['),
       }) {
    EXPECT_EQ(12, Provider().AddUsers(text)) << text.substr(0, 80);
    EXPECT_EQ(12, Provider().ModifyUsers(text)) << text.substr(0, 80);
  }
  EXPECT_EQ(std::vector<bool>(), recorder.Values());
  EXPECT_EQ(kOnlyNobody, Provider().GetUsers());
}

TEST_F(SecurityProviderUsers, EntriesNeedTheirMembersInTheRightTypes) {
  for (const char* entry : {
           R"({"Password":"pass","Group":8})",
           R"({"Name":1,"Password":"pass","Group":8})",
           R"({"Name":null,"Password":"pass","Group":8})",
           R"({"Name":["ab"],"Password":"pass","Group":8})",
           R"({"Name":"ab","Group":8})",
           R"({"Name":"ab","Password":1234,"Group":8})",
           R"({"Name":"ab","Password":null,"Group":8})",
           R"({"Name":"ab","Password":"pass"})",
           R"({"Name":"ab","Password":"pass","Group":"8"})",
           R"({"Name":"ab","Password":"pass","Group":null})",
           R"({"Name":"ab","Password":"pass","Group":true})",
           R"({"Name":"ab","Password":"pass","Group":[8]})",
           R"({"name":"ab","password":"pass","group":8})",
       }) {
    EXPECT_EQ(12, Provider().AddUsers(UsersJson({entry}))) << entry;
  }
  EXPECT_EQ(kOnlyNobody, Provider().GetUsers());
}

TEST_F(SecurityProviderUsers, GroupMustBeANonNegativeWholeNumber) {
  for (const char* group : {"-1", "-8", "8.5", "0.1", "1e400", "4294967304", "1e20", "-0.5"}) {
    const std::string entry =
        std::string(R"({"Name":"ab","Password":"pass","Group":)") + group + "}";
    EXPECT_EQ(12, Provider().AddUsers(UsersJson({entry}))) << group;
  }
  for (const char* group : {"8.0", "8e0", "0.8e1"}) {
    const std::string entry =
        std::string(R"({"Name":"ab","Password":"pass","Group":)") + group + "}";
    EXPECT_EQ(0, Provider().AddUsers(UsersJson({entry}))) << group;
    ASSERT_EQ(0, Provider().DeleteUsers({"ab"}));
  }
}

TEST_F(SecurityProviderUsers, NameLengthsAreCountedInBytes) {
  EXPECT_EQ(1, AddOne("", "pass", 8));
  EXPECT_EQ(1, AddOne("a", "pass", 8));
  EXPECT_EQ(0, AddOne("ab", "pass", 8));
  EXPECT_EQ(0, AddOne(std::string(32, 'n'), "pass", 8));
  EXPECT_EQ(2, AddOne(std::string(33, 'n'), "pass", 8));
  EXPECT_EQ(2, AddOne(std::string(100000, 'n'), "pass", 8));
  EXPECT_EQ(0, AddOne("\xc3\xa9", "pass", 8));  // one character, two bytes
  std::string umlauts;
  for (int i = 0; i < 17; ++i) umlauts += "\xc3\xa4";
  EXPECT_EQ(2, AddOne(umlauts, "pass", 8));
}

TEST_F(SecurityProviderUsers, NamesHoldNoBlankHashSlashOrZeroByte) {
  for (const char* name :
       {"a b", " ab", "ab ", "a#b", "a/b", "/ab", "ab\\u0000", "\\u0000\\u0000", "ab\\u0000x"}) {
    EXPECT_EQ(3, AddOne(name, "pass", 8)) << name;
  }
  EXPECT_EQ(kOnlyNobody, Provider().GetUsers());
}

TEST_F(SecurityProviderUsers, OtherCharactersAreFineAndListed) {
  EXPECT_EQ(0, AddOne("a\\\"b", "pass", 8));
  EXPECT_EQ(0, AddOne("c\\\\d", "pass", 8));
  EXPECT_EQ(0, AddOne("e\\u0001f", "pass", 8));
  EXPECT_EQ(0, AddOne("a.b-c_d@e", "pass", 8));
  EXPECT_TRUE(IsToken(Logon("a\"b", "pass")));
  EXPECT_TRUE(IsToken(Logon("c\\d", "pass")));
  EXPECT_TRUE(IsToken(Logon("e\001f", "pass")));
}

TEST_F(SecurityProviderUsers, TakenNamesAreRefusedBeforeTheirCharactersAreLookedAt) {
  EXPECT_EQ(4, AddOne("nobody", "pass", 8));
  EXPECT_EQ(0, AddOne("ab", "pass", 8));
  EXPECT_EQ(4, AddOne("ab", "pass", 8));
  // An account from elsewhere, with a name that would not be accepted here.
  ASSERT_EQ(KRAND_CORE_OK, krand_core_settings_set_json_value("user.a b", "{\"Groups\":8}"));
  SecurityProvider provider(&server_.Env());
  EXPECT_EQ(4, provider.AddUsers(UsersJson({UserJson("a b", "pass", 8)})));
  EXPECT_EQ(3, provider.AddUsers(UsersJson({UserJson("a c", "pass", 8)})));
}

// Of two passwords for one account no reader can tell which one was meant.
TEST_F(SecurityProviderUsers, TwoMembersOfOneNameAreMalformedAndChangeNothing) {
  ASSERT_EQ(0, AddOne("ab", "pass", 8));
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  const std::string users = Provider().GetUsers();
  const std::string good = "{\"Name\":\"ab\",\"Password\":\"word\",\"Group\":8}";
  for (
      const std::string& text : {
          "{\"Users\":[{\"Name\":\"ab\",\"Password\":\"word\",\"Password\":\"pass\",\"Group\":8}]}"s,
          "{\"Users\":[" + good + "],\"Users\":[" + good + "]}",
          "{\"Users\":[" + good + "],\"x\":{\"y\":1,\"y\":1}}",
      }) {
    EXPECT_EQ(12, Provider().ModifyUsers(text)) << text;
    EXPECT_EQ(12, Provider().AddUsers(text)) << text;
  }
  EXPECT_EQ(users, Provider().GetUsers());
  EXPECT_TRUE(recorder.Values().empty());
  EXPECT_TRUE(IsToken(Logon("ab", "pass")));
}

TEST_F(SecurityProviderUsers, OneNameTwiceInARequestAddsNeither) {
  EXPECT_EQ(4,
            Provider().AddUsers(UsersJson({UserJson("ab", "pass", 8), UserJson("ab", "pass", 8)})));
  EXPECT_EQ(kOnlyNobody, Provider().GetUsers());
}

TEST_F(SecurityProviderUsers, ChecksOfAnAddedEntryComeInTheirOrder) {
  // Name, then password, then group: each refusal hides the ones behind it.
  EXPECT_EQ(1, Provider().AddUsers(R"({"Users":[{"Name":"a"}]})"));
  EXPECT_EQ(3, Provider().AddUsers(R"({"Users":[{"Name":"a/b"}]})"));
  EXPECT_EQ(12, Provider().AddUsers(R"({"Users":[{"Name":"ab","Group":3}]})"));
  EXPECT_EQ(5, Provider().AddUsers(R"({"Users":[{"Name":"ab","Password":"abc"}]})"));
  EXPECT_EQ(12, Provider().AddUsers(R"({"Users":[{"Name":"ab","Password":"abcd"}]})"));
}

TEST_F(SecurityProviderUsers, PasswordsNeedFourToSixtyFourBytes) {
  EXPECT_EQ(5, AddOne("ab", "", 8));
  EXPECT_EQ(5, AddOne("ab", "abc", 8));
  EXPECT_EQ(6, AddOne("ab", std::string(65, 'p'), 8));
  EXPECT_EQ(0, AddOne("ab", "abcd", 8));
  EXPECT_EQ(0, AddOne("cd", std::string(64, 'p'), 8));
  EXPECT_EQ(0, AddOne("ef", "p\\u0000q\\u0000", 8));
  EXPECT_TRUE(IsToken(Logon("ef", std::string("p\0q\0", 4))));
  EXPECT_EQ("NO_TOKEN", Logon("ef", "p"));
}

TEST_F(SecurityProviderUsers, NameThatIsEmptyIsNotWhatThePasswordCheckSees) {
  // With the policy on, only the length counts for an account that is to be.
  Provider().EnforcePasswordPolicy(true);
  AddAdministrator();
  EXPECT_EQ(0, AddOne("ab", "adminpass", 8));
}

TEST_F(SecurityProviderUsers, GroupsOfAddedAccounts) {
  const struct {
    int group, code;
  } rows[] = {{0, 8},  {3, 7},  {5, 7},  {6, 7},          {7, 7}, {9, 7}, {10, 7}, {12, 7}, {15, 7},
              {16, 8}, {17, 7}, {32, 7}, {0x40000000, 7}, {4, 0}, {8, 0}, {1, 0},  {2, 0}};
  int accounts = 0;
  for (const auto& row : rows) {
    const std::string name = "user" + std::to_string(accounts);
    EXPECT_EQ(row.code, AddOne(name, "pass", row.group)) << row.group;
    if (row.code == 0) {
      EXPECT_EQ(row.group, GroupOf(name));
      ++accounts;
    }
  }
  EXPECT_EQ(4, accounts);
}

TEST_F(SecurityProviderUsers, NobodyTakesItsOwnGroups) {
  AddAdministrator();
  const struct {
    int group, code;
  } rows[] = {{1, 7}, {2, 7}, {3, 7}, {7, 7}, {17, 7}, {4, 0}, {8, 0}, {16, 0}, {0, 0}};
  for (const auto& row : rows) {
    const int before = GroupOf("nobody");
    EXPECT_EQ(row.code, Modify({UserJson("nobody", row.group)})) << row.group;
    EXPECT_EQ(row.code == 0 ? row.group : before, GroupOf("nobody")) << row.group;
  }
}

TEST_F(SecurityProviderUsers, NobodyInGroupZeroHasNoPermission) {
  AddAdministrator();
  EXPECT_TRUE(Provider().Authorize("NO_TOKEN", "/onvif"));
  EXPECT_EQ(0, Modify({UserJson("nobody", 0)}));
  EXPECT_TRUE(Provider().GetAllowedPermissions("NO_TOKEN").empty());
  EXPECT_FALSE(Provider().Authorize("NO_TOKEN", "/onvif"));
  EXPECT_EQ(0, Modify({UserJson("nobody", 8)}));
  EXPECT_TRUE(Provider().Authorize("NO_TOKEN", "/jpeg/1"));
}

TEST_F(SecurityProviderUsers, NobodyInItsOwnGroupIsAcceptedAndChangesNothing) {
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(0, Modify({UserJson("nobody", 16)}));
  EXPECT_EQ(std::vector<bool>(), recorder.Values());
}

TEST_F(SecurityProviderUsers, NobodysPasswordIsNotEvenLookedAt) {
  for (const char* password : {"\"\"", "\"abc\"", "\"abcdef\"", "null", "17", "{}"}) {
    const std::string entry =
        std::string(R"({"Name":"nobody","Group":16,"Password":)") + password + "}";
    EXPECT_EQ(0, Modify({entry})) << password;
  }
  EXPECT_EQ("NO_TOKEN", Logon("nobody", "abcdef"));
}

TEST_F(SecurityProviderUsers, ModifyingAnUnknownUserIsRefused) {
  EXPECT_EQ(10, Modify({UserJson("ghost", "pass", 8)}));
  EXPECT_EQ(10, Modify({UserJson("", "pass", 8)}));
  EXPECT_EQ(10, Modify({UserJson("nobody\\u0000", "pass", 8)}));
  EXPECT_EQ(kOnlyNobody, Provider().GetUsers());
}

TEST_F(SecurityProviderUsers, ModifyingWithoutAPasswordChangesTheGroupOnly) {
  AddAdministrator();
  Add("alice", "secret", 8);
  const std::string token = Logon("alice", "secret");
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(0, Modify({UserJson("alice", 4)}));
  EXPECT_EQ(std::vector<bool>{true}, recorder.Values());
  EXPECT_EQ(4, GroupOf("alice"));
  EXPECT_EQ("", Provider().GetCredentials(token));  // a changed account logs on anew
  EXPECT_TRUE(IsToken(Logon("alice", "secret")));
}

TEST_F(SecurityProviderUsers, ModifyingThePasswordEndsTheSessions) {
  AddAdministrator();
  Add("alice", "secret", 8);
  const std::string token = Logon("alice", "secret");
  EXPECT_EQ(0, Modify({UserJson("alice", "another", 8)}));
  EXPECT_EQ("", Provider().GetCredentials(token));
  EXPECT_EQ("NO_TOKEN", Logon("alice", "secret"));
  EXPECT_TRUE(IsToken(Logon("alice", "another")));
}

TEST_F(SecurityProviderUsers, ModifyingToTheSameChangesNothingAndIsNotAnnounced) {
  AddAdministrator();
  Add("alice", "secret", 8);
  const std::string token = Logon("alice", "secret");
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(0, Modify({UserJson("alice", "secret", 8)}));
  EXPECT_EQ(0, Modify({UserJson("alice", 8)}));
  EXPECT_EQ(std::vector<bool>(), recorder.Values());
  EXPECT_EQ("alice", Provider().GetCredentials(token));
}

TEST_F(SecurityProviderUsers, EmptyPasswordIsTooShortAndNotAbsent) {
  AddAdministrator();
  Add("alice", "secret", 8);
  EXPECT_EQ(5, Modify({UserJson("alice", "", 4)}));
  EXPECT_EQ(8, GroupOf("alice"));
  EXPECT_EQ(12, Modify({R"({"Name":"alice","Password":null,"Group":8})"}));
  EXPECT_EQ(12, Modify({R"({"Name":"alice","Password":"another"})"}));
}

TEST_F(SecurityProviderUsers, LastOfTwoModificationsOfOneAccountWins) {
  AddAdministrator();
  Add("alice", "secret", 8);
  EXPECT_EQ(0, Modify({UserJson("alice", "first", 4), UserJson("alice", "second", 2)}));
  EXPECT_EQ(2, GroupOf("alice"));
  EXPECT_TRUE(IsToken(Logon("alice", "second")));
  EXPECT_EQ("NO_TOKEN", Logon("alice", "first"));
}

TEST_F(SecurityProviderUsers, LastAdministratorKeepsTheGroup) {
  AddAdministrator();
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(11, Modify({UserJson("admin", 8)}));
  EXPECT_EQ(1, GroupOf("admin"));
  EXPECT_EQ(std::vector<bool>(), recorder.Values());
  Add("second", "adminpass", 1);
  EXPECT_EQ(0, Modify({UserJson("admin", 8)}));
  EXPECT_EQ(11, Modify({UserJson("second", 8)}));
}

TEST_F(SecurityProviderUsers, OldPasswordsAreRefusedUnderThePolicyWithTheStoresCodes) {
  Provider().EnforcePasswordPolicy(true);
  AddAdministrator();
  Add("alice", "secret", 8);
  EXPECT_EQ(15, Modify({UserJson("alice", "another", 8)}));
  server_.AdvanceSeconds(86400);
  EXPECT_EQ(0, Modify({UserJson("alice", "another", 8)}));
  server_.AdvanceSeconds(86400);
  EXPECT_EQ(14, Modify({UserJson("alice", "secret", 8)}));
}

TEST_F(SecurityProviderUsers, ChangingThePasswordLetsALockedAccountInAgain) {
  Provider().EnforcePasswordPolicy(true);
  AddAdministrator();
  Add("alice", "secret", 8);
  for (int i = 0; i < 3; ++i) {
    server_.AdvanceSeconds(5);
    Logon("alice", "wrong");
  }
  EXPECT_EQ(0, Modify({UserJson("alice", "another", 8)}));
  EXPECT_TRUE(IsToken(Logon("alice", "another")));
}

TEST_F(SecurityProviderUsers, RequestThatFailsAtItsThirdEntryAppliesNone) {
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(7, Provider().AddUsers(UsersJson({UserJson("ab", "pass", 8), UserJson("cd", "pass", 1),
                                              UserJson("ef", "pass", 3)})));
  EXPECT_EQ(kOnlyNobody, Provider().GetUsers());
  EXPECT_EQ(std::vector<bool>(), recorder.Values());
  AddAdministrator();
  Add("alice", "secret", 8);
  EXPECT_EQ(10, Modify({UserJson("alice", 4), UserJson("admin", 1), UserJson("ghost", 8)}));
  EXPECT_EQ(8, GroupOf("alice"));
}

TEST_F(SecurityProviderUsers, FirstFailingEntryDecides) {
  EXPECT_EQ(1, Provider().AddUsers(UsersJson({UserJson("a", "pass", 8), "17"})));
  EXPECT_EQ(12, Provider().AddUsers(UsersJson({"17", UserJson("a", "pass", 8)})));
}

TEST_F(SecurityProviderUsers, UnknownMembersAreIgnored) {
  EXPECT_EQ(0,
            Provider().AddUsers(
                R"({"Version":3,"Users":[{"Name":"ab","Password":"pass","Group":8,"X":[{}]}]})"));
  EXPECT_EQ(8, GroupOf("ab"));
}

TEST_F(SecurityProviderUsers, StoreHoldsOneThousandAndTwentyFourAccountsWithNobody) {
  std::string entries;
  for (int i = 0; i < 1023; ++i) {
    entries += (i == 0 ? "" : ",") + UserJson("user" + std::to_string(i), "pass", 8);
  }
  const std::string full = "{\"Users\":[" + entries + "]}";
  const std::string over = "{\"Users\":[17," + entries + "]}";
  EXPECT_EQ(9, Provider().AddUsers(over));  // before the entry that is none is looked at
  EXPECT_EQ(kOnlyNobody, Provider().GetUsers());
  EXPECT_EQ(0, Provider().AddUsers(full));
  EXPECT_EQ(9, AddOne("ab", "pass", 8));
  EXPECT_EQ(9, AddOne("user1", "", 99));
  EXPECT_EQ(12, Provider().AddUsers("{\"Users\":[]}"));
  EXPECT_EQ(0, Modify({UserJson("user7", 4)}));  // changing needs no room
  EXPECT_EQ(0, Provider().DeleteUsers({"user0"}));
  EXPECT_EQ(0, AddOne("ab", "pass", 8));
  EXPECT_EQ(9, AddOne("cd", "pass", 8));
}

TEST_F(SecurityProviderUsers, FirstAdministratorEndsTheOpenState) {
  EXPECT_TRUE(Provider().IsAuthenticated("12345678"));
  AddAdministrator();
  EXPECT_FALSE(Provider().IsAuthenticated("12345678"));
}

TEST(FreedMemoryWatch, FindsTextsThatWereLeftBehind) {
  if (!support::FreedMemoryWatch::kWorks) GTEST_SKIP() << "not under the thread sanitizer";
  auto text = std::make_unique<std::string>("correct horse battery staple");
  const support::FreedMemoryWatch watch("battery staple");
  EXPECT_EQ(0, watch.Found());
  text.reset();
  EXPECT_EQ(1, watch.Found());
}

TEST_F(SecurityProviderUsers, PasswordsAreOverwrittenBeforeTheirMemoryIsGivenBack) {
  constexpr char kPassword[] = "correct horse battery staple";
  const auto one = [&](const char* name, int group) {
    return UsersJson({UserJson(name, kPassword, group)});
  };
  const std::string added = one("alice", 8), refused = one("robert", 3), unknown = one("ghost", 8);
  const std::string twice =
      UsersJson({UserJson("carol", kPassword, 8), UserJson("carol", kPassword, 8)});
  const std::string malformed = added.substr(0, added.size() - 1);
  AddAdministrator();
  const support::FreedMemoryWatch watch(kPassword);
  EXPECT_EQ(0, Provider().AddUsers(added));
  EXPECT_EQ(7, Provider().AddUsers(refused));
  EXPECT_EQ(4, Provider().AddUsers(twice));
  EXPECT_EQ(12, Provider().AddUsers(malformed));
  EXPECT_EQ(0, Provider().ModifyUsers(added));
  EXPECT_EQ(10, Provider().ModifyUsers(unknown));
  EXPECT_EQ(0, watch.Found());
}

TEST_F(SecurityProviderUsers, StoreThatCannotBeWrittenIsAnExceptionAndChangesNothing) {
  AddAdministrator();
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  const std::string before = Provider().GetUsers();
  int failures = 0;
  for (int nth = 1; nth < 20; ++nth) {
    krand_core_settings_fail_after(nth);
    bool threw = false;
    int code = 0;
    try {
      code = Provider().AddUsers(UsersJson({UserJson("ab", "pass", 8), UserJson("cd", "pass", 4)}));
    } catch (const std::exception&) {
      threw = true;
    }
    krand_core_settings_fail_after(-1);
    if (!threw) {
      EXPECT_EQ(0, code);
      break;
    }
    ++failures;
    EXPECT_EQ(before, Provider().GetUsers());
    EXPECT_EQ(std::vector<bool>(), recorder.Values());
    EXPECT_EQ(0, krand_core_settings_does_key_exist("user.ab"));
  }
  EXPECT_GE(failures, 1);
  EXPECT_EQ(std::vector<bool>{true}, recorder.Values());
  EXPECT_EQ(4, GroupOf("cd"));
}

TEST_F(SecurityProviderUsers, DeletionThatCannotBeWrittenIsAnExceptionAndChangesNothing) {
  AddAdministrator();
  Add("alice", "secret", 8);
  const std::string before = Provider().GetUsers();
  krand_core_settings_fail_after(1);
  EXPECT_ANY_THROW(Provider().DeleteUsers({"alice"}));
  krand_core_settings_fail_after(-1);
  EXPECT_EQ(before, Provider().GetUsers());
  EXPECT_TRUE(IsToken(Logon("alice", "secret")));
  EXPECT_EQ(0, Provider().DeleteUsers({"alice"}));
}

}  // namespace
}  // namespace vigila::server

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <utility>

#include "support/library_without_rsa.h"
#include "support/user_store_fixture.h"

namespace {

// A key that is listed and then has no value, as when another program deletes it meanwhile.
const char* vanished_key = nullptr;

}  // namespace

// Stands in front of the library's own.
extern "C" char** krand_core_settings_get_keys_starting_with(const char* prefix) {
  static const auto forward =
      reinterpret_cast<decltype(&krand_core_settings_get_keys_starting_with)>(
          dlsym(RTLD_NEXT, "krand_core_settings_get_keys_starting_with"));
  char** const keys = forward(prefix);
  if (vanished_key == nullptr || keys == nullptr ||
      std::strncmp(vanished_key, prefix, std::strlen(prefix)) != 0) {
    return keys;
  }
  size_t count = 0;
  while (keys[count] != nullptr) ++count;
  char** const more = krand_core_alloc_string_array(count + 1);
  more[0] = strdup(vanished_key);
  for (size_t i = 0; i < count; ++i) more[i + 1] = std::exchange(keys[i], nullptr);
  krand_core_free_string_array(keys);
  return more;
}

namespace vigila::server {
namespace {

class UserMapLoading : public support::UserStoreTest {};

_uuid_t Scan(const char* text) {
  _uuid_t uuid = {};
  EXPECT_EQ(0, uuid_scan(text, &uuid));
  return uuid;
}

constexpr char kEveryone1[] = "00d8dc27-61d1-4b7d-85a8-519efb70d712";
constexpr char kEveryone2[] = "d6f86cee-5c0c-41ce-a91f-b8563a2b94d6";
constexpr char kViewers1[] = "252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a";
constexpr char kViewers2[] = "88049574-465a-4f41-89d4-d6d517e8c218";

TEST_F(UserMapLoading, TouchesNoSettingWhenBuilt) {
  EXPECT_EQ(Texts(), settings_.Keys());
}

TEST_F(UserMapLoading, MakesNobodyInAnEmptyStoreOnTheFirstCall) {
  EXPECT_EQ(1u, Store().Size());
  EXPECT_TRUE(Store().Exists("nobody"));
  EXPECT_EQ(16u, Store().GetGroup("nobody"));
  EXPECT_EQ(Texts{"user.nobody"}, settings_.Keys());
  EXPECT_EQ("{\"Groups\":16}", StoredText("nobody"));
  EXPECT_TRUE(Store().NoAdministratorsYet());
}

TEST_F(UserMapLoading, TakesNobodysRightsAwayWhenTheStoreGivesItTooMany) {
  for (const int group : {1, 2}) {
    settings_.PutJson("user.nobody", "{\"Groups\":" + std::to_string(group) + "}");
    Restart();
    EXPECT_EQ(16u, Store().GetGroup("nobody")) << group;
    EXPECT_EQ("{\"Groups\":16}", StoredText("nobody")) << group;
    EXPECT_EQ(16u, Store().GetNobody()->GetGroup()) << group;
    EXPECT_TRUE(Store().NoAdministratorsYet()) << group;
  }
}

TEST_F(UserMapLoading, LeavesNobodyInTheOtherGroups) {
  for (const int group : {4, 8, 0, 16}) {
    const std::string json = "{\"Groups\":" + std::to_string(group) + "}";
    settings_.PutJson("user.nobody", json);
    Restart();
    EXPECT_EQ(static_cast<uint32_t>(group), Store().GetGroup("nobody"));
    EXPECT_EQ(json, StoredText("nobody"));
  }
}

TEST_F(UserMapLoading, AnswersAnUnknownNameWithItsOwnGroup) {
  EXPECT_EQ(1073741824u, Store().GetGroup("nosuch"));
  EXPECT_EQ(1073741824u, Store().GetGroup(""));
  EXPECT_EQ(1073741824u, Store().GetGroup(std::string("nobody\0", 7)));
  EXPECT_FALSE(Store().Exists("nosuch"));
}

TEST_F(UserMapLoading, CountsNobodyToo) {
  Put("alice", "secret", kViewer);
  EXPECT_EQ(2u, Store().Size());
}

TEST_F(UserMapLoading, ListsAllAccountsInNameOrderOnOneLine) {
  Put("b", "secret", kViewer);
  Put("a", "secret", kAdmin);
  EXPECT_EQ(
      "{\"Users\":[{\"Name\":\"a\",\"Group\":1},{\"Name\":\"b\",\"Group\":8},"
      "{\"Name\":\"nobody\",\"Group\":16}]}",
      Store().GetAllJson());
  EXPECT_FALSE(Store().NoAdministratorsYet());
}

TEST_F(UserMapLoading, ListsAnEmptyChangeSetAsAnEmptyArray) {
  EXPECT_EQ("{\"Users\":[]}", UserMap(nullptr).GetAllJson());
}

TEST_F(UserMapLoading, LetsNoNameAddEntriesToTheListing) {
  const auto set = ChangeSet({{"a\",\"Group\":1},{\"Name\":\"b", "", 8},
                              {"back\\slash", "", 8},
                              {"line\nend\x01\x1f", "", 8},
                              {"caf\xc3\xa9\x7f", "", 8}});
  EXPECT_EQ(
      "{\"Users\":[{\"Name\":\"a\\\",\\\"Group\\\":1},{\\\"Name\\\":\\\"b\",\"Group\":8},"
      "{\"Name\":\"back\\\\slash\",\"Group\":8},"
      "{\"Name\":\"caf\xc3\xa9\x7f\",\"Group\":8},"
      "{\"Name\":\"line\\u000aend\\u0001\\u001f\",\"Group\":8}]}",
      set->GetAllJson());
}

TEST_F(UserMapLoading, GivesAdministratorsEveryPermission) {
  EXPECT_EQ(11u, Store().GetPermissions(ToGroup(1)).size());
  // Any group with the administrators' bit counts as one.
  EXPECT_EQ(11u, Store().GetPermissions(ToGroup(17)).size());
}

TEST_F(UserMapLoading, GivesTheOtherGroupsWhatTheirMasksSay) {
  EXPECT_EQ(8u, Store().GetPermissions(ToGroup(2)).size());
  EXPECT_EQ(6u, Store().GetPermissions(ToGroup(4)).size());
  EXPECT_EQ(
      (std::set<_uuid_t>{Scan(kEveryone1), Scan(kEveryone2), Scan(kViewers1), Scan(kViewers2)}),
      Store().GetPermissions(ToGroup(8)));
  EXPECT_EQ((std::set<_uuid_t>{Scan(kEveryone1), Scan(kEveryone2)}),
            Store().GetPermissions(ToGroup(16)));
  EXPECT_TRUE(Store().GetPermissions(ToGroup(0)).empty());
  EXPECT_TRUE(Store().GetPermissions(ToGroup(0x40000000)).empty());
}

TEST_F(UserMapLoading, GivesEveryRecordOfAGroupTheSameRights) {
  for (const int number : {0, 1, 2, 4, 8, 16, 17}) {
    const auto rights = Store().GetRights(ToGroup(number));
    EXPECT_EQ(ToGroup(number), rights.group);
    EXPECT_EQ(Store().GetPermissions(ToGroup(number)), *rights.permissions);
    EXPECT_EQ(rights.permissions, Store().GetRights(ToGroup(number)).permissions);
  }
}

TEST_F(UserMapLoading, KeepsManagersFromTheAdministratorsPermissions) {
  EXPECT_FALSE(
      Store().GetPermissions(ToGroup(2)).contains(Scan("cf4f528d-3e7d-4c9d-b721-e8fc326cd661")));
  EXPECT_TRUE(
      Store().GetPermissions(ToGroup(2)).contains(Scan("e1f9915b-7818-4bf0-b1e4-0514a9d05231")));
}

TEST_F(UserMapLoading, GrantsTheZeroPermissionForATextThatIsNone) {
  const Impl::PermissionTable table = {{"no identifier", 8},
                                       {std::string("{") + kViewers1 + "}", 8}};
  EXPECT_EQ((std::set<_uuid_t>{_uuid_t{}, Scan(kViewers1)}),
            Impl::GetPermissions(table, ToGroup(8)));
}

TEST_F(UserMapLoading, WritesTheAccountObjectInOneOrderWithoutBlanks) {
  MyUser user;
  user.group = ToGroup(8);
  user.password = "QUJD";
  user.password_time = 4294967295u;
  user.bad_password_time = 2;
  user.disabled_time = 3;
  user.failed_attempts = 4;
  EXPECT_EQ(
      "{\"Groups\":8,\"Password\":\"QUJD\",\"PasswordTimeEpoch\":4294967295,"
      "\"BadPasswordTimeEpoch\":2,\"DisabledTimeEpoch\":3,\"NumFailedLoginAttempts\":4}",
      user.ToJson());
}

TEST_F(UserMapLoading, LeavesTheCountersOutWithoutAPassword) {
  MyUser user;
  user.group = ToGroup(16);
  user.password_time = 1;
  user.failed_attempts = 4;
  EXPECT_EQ("{\"Groups\":16}", user.ToJson());
}

TEST_F(UserMapLoading, WritesTheGroupWithItsSign) {
  EXPECT_EQ("{\"Groups\":-1}", MyUser("{\"Groups\":-1}").ToJson());
  EXPECT_EQ("{\"Groups\":1073741824}", MyUser("{\"Groups\":1073741824}").ToJson());
}

TEST_F(UserMapLoading, ReadsTheAccountObjectBack) {
  const MyUser user(
      "{\"NumFailedLoginAttempts\":4, \"Unknown\":[1], \"Groups\":4,\"Password\":\"QUJD\","
      "\"DisabledTimeEpoch\":3,\"BadPasswordTimeEpoch\":2,\"PasswordTimeEpoch\":1}");
  EXPECT_EQ(4u, user.group);
  EXPECT_EQ("QUJD", user.password);
  EXPECT_EQ("", user.digest);
  EXPECT_EQ(1u, user.password_time);
  EXPECT_EQ(2u, user.bad_password_time);
  EXPECT_EQ(3u, user.disabled_time);
  EXPECT_EQ(4u, user.failed_attempts);
  EXPECT_FALSE(user.dirty);
}

TEST_F(UserMapLoading, ReadsMissingCountersAsZero) {
  const MyUser user("{\"Groups\":8,\"Password\":\"QUJD\",\"DisabledTimeEpoch\":3}");
  EXPECT_EQ(0u, user.password_time);
  EXPECT_EQ(0u, user.bad_password_time);
  EXPECT_EQ(3u, user.disabled_time);
  EXPECT_EQ(0u, user.failed_attempts);
}

TEST_F(UserMapLoading, IgnoresTheCountersOfAnAccountWithoutAPassword) {
  const MyUser user("{\"Groups\":8,\"DisabledTimeEpoch\":3,\"NumFailedLoginAttempts\":2}");
  EXPECT_EQ(0u, user.disabled_time);
  EXPECT_EQ(0u, user.failed_attempts);
  EXPECT_EQ("{\"Groups\":8}", user.ToJson());
}

TEST_F(UserMapLoading, ThrowsForEveryMalformedObjectAndTriesAgainLater) {
  Put("admin", "secret", kAdmin);
  for (const char* json :
       {"",
        "{",
        "{\"Groups\":1",
        "[]",
        "null",
        "8",
        "{}",
        "{\"Groups\":\"8\"}",
        "{\"Groups\":null}",
        "{\"Groups\":8.5}",
        "{\"Groups\":4294967296}",
        "{\"Groups\":1e99}",
        "{\"Groups\":8}x",
        "{\"groups\":8}",
        "{\"Groups\":1,\"Groups\":8}",
        "{\"Groups\":8,\"Password\":7}",
        "{\"Groups\":8,\"Password\":\"a\",\"PasswordTimeEpoch\":-1}",
        "{\"Groups\":8,\"Password\":\"a\",\"DisabledTimeEpoch\":\"1\"}",
        "{\"Groups\":8,\"Password\":\"a\",\"NumFailedLoginAttempts\":4294967296}",
        "{\"Groups\":8,\"Password\":\"\xff\"}"}) {
    settings_.PutJson("user.broken", json);
    Restart();
    EXPECT_THROW(Store().Size(), Exception) << json;
    EXPECT_THROW(Store().NoAdministratorsYet(), Exception) << json;
    settings_.PutJson("user.broken", "{\"Groups\":8}");
    EXPECT_EQ(3u, Store().Size()) << json;
  }
}

TEST_F(UserMapLoading, NamesTheMalformedSetting) {
  settings_.PutJson("user.bro\nken", "{}");
  try {
    Store().Size();
    FAIL();
  } catch (const Exception& error) {
    EXPECT_EQ(0u, std::string(error.what()).find("malformed setting user.bro\\x0aken: "));
  }
  ASSERT_EQ(1u, Errors().size());
}

TEST_F(UserMapLoading, CountsNoAdministratorTwiceWhenALoadIsTriedAgain) {
  Put("admin", "secret", kAdmin);
  settings_.PutJson("user.broken", "{}");
  EXPECT_THROW(Store().Size(), Exception);
  EXPECT_THROW(Store().Size(), Exception);
  settings_.Delete("user.broken");
  EXPECT_EQ(2u, Store().Size());
  EXPECT_EQ(11, Delete({{"admin", "", kAdmin}}));  // the one there is
}

TEST_F(UserMapLoading, RewritesNothingWhenAnotherObjectIsMalformed) {
  settings_.PutJson("user.nobody", "{\"Groups\":1}");
  settings_.PutJson("user.zoe", "{}");
  EXPECT_THROW(Store().Size(), Exception);
  EXPECT_EQ("{\"Groups\":1}", StoredText("nobody"));
}

TEST_F(UserMapLoading, RewritesNothingWhenAPassphraseIsMalformed) {
  settings_.PutJson("user.nobody", "{\"Groups\":1}");
  settings_.PutJson("phrase._1", "{\"Phrase\":\"QUJD\"}");
  EXPECT_THROW(Store().Size(), Exception);
  EXPECT_EQ("{\"Groups\":1}", StoredText("nobody"));
  settings_.Delete("phrase._1");
  EXPECT_EQ(16u, Store().GetGroup("nobody"));
}

TEST_F(UserMapLoading, StaysUnloadedWhenTheCorrectionCannotBeWritten) {
  settings_.PutJson("user.nobody", "{\"Groups\":1}");
  for (int n = 1; n <= 2; ++n) {  // the write, then the commit
    krand_core_settings_fail_after(n);
    EXPECT_THROW(Store().Size(), Exception) << n;
    EXPECT_EQ("{\"Groups\":1}", StoredText("nobody")) << n;
  }
  krand_core_settings_fail_after(-1);
  EXPECT_EQ(16u, Store().GetGroup("nobody"));
  EXPECT_EQ("{\"Groups\":16}", StoredText("nobody"));
}

TEST_F(UserMapLoading, StaysUnloadedWhenNobodyCannotBeWritten) {
  krand_core_settings_fail_after(1);
  EXPECT_THROW(Store().Size(), Exception);
  EXPECT_EQ(1u, Errors().size());
  EXPECT_EQ(1u, Store().Size());
}

TEST_F(UserMapLoading, NeverTakesAnUnreadableStoreForAnEmptyOne) {
  settings_.Close();
  EXPECT_THROW(Store().NoAdministratorsYet(), Exception);
  EXPECT_THROW(Logon("nobody", ""), Exception);
  settings_.Open();
  EXPECT_TRUE(Store().NoAdministratorsYet());
}

TEST_F(UserMapLoading, TakesAnyBytesForAName) {
  settings_.PutJson("user.", "{\"Groups\":8}");
  settings_.PutJson("user.\xff\x01 .", "{\"Groups\":8}");
  EXPECT_EQ(3u, Store().Size());
  EXPECT_TRUE(Store().Exists(""));
  EXPECT_TRUE(Store().Exists("\xff\x01 ."));
}

TEST_F(UserMapLoading, ReadsOnlyKeysWithThePrefix) {
  settings_.PutJson("user", "{}");
  settings_.PutJson("users.x", "{}");
  settings_.PutJson("User.x", "{}");
  EXPECT_EQ(1u, Store().Size());
}

TEST_F(UserMapLoading, SkipsAKeyWithoutAValueInSilence) {
  settings_.PutJson("user.alice", "{\"Groups\":8}");
  settings_.PutJson("phrase._1", "{\"Alias\":\"b25l\",\"Phrase\":\"QUJD\"}");
  for (const char* key : {"user.vanished", "user.", "phrase._0"}) {
    vanished_key = key;
    Restart();
    EXPECT_EQ(2u, Store().Size()) << key;
    EXPECT_FALSE(Store().Exists("vanished")) << key;
    EXPECT_NE(std::string::npos, Store().GetPassphrases().find("\"_1\"")) << key;
    EXPECT_EQ(std::string::npos, Store().GetPassphrases().find("_0")) << key;
  }
  vanished_key = nullptr;
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(UserMapLoading, LoadsOnceAndThenBelievesItsMemory) {
  EXPECT_EQ(1u, Store().Size());
  Put("alice", "secret", kViewer);
  EXPECT_EQ(1u, Store().Size());
}

TEST_F(UserMapLoading, WritesNothingWhenNothingIsToBeCorrected) {
  Put("alice", "secret", kViewer);
  Store().Size();
  const unsigned long writes = krand_core_settings_write_count();
  Restart();
  Store().Size();
  EXPECT_EQ(writes, krand_core_settings_write_count());
}

TEST_F(UserMapLoading, DecryptsNothingWithoutPolicy) {
  settings_.PutJson("user.alice", "{\"Groups\":8,\"Password\":\"no at-rest text\"}");
  EXPECT_EQ(2u, Store().Size());
  EXPECT_EQ("{\"Groups\":8,\"Password\":\"no at-rest text\"}", StoredText("alice"));
}

TEST_F(UserMapLoading, LetsALockedAdministratorTryOnceMoreAfterARestart) {
  MyUser locked = Account("secret", kAdmin);
  locked.disabled_time = kStart - 1;
  locked.failed_attempts = 3;
  locked.bad_password_time = kStart - 100;
  Put("admin", locked);
  RestartWithPolicy();
  EXPECT_FALSE(Store().IsAccountDisabled("admin"));
  EXPECT_EQ(0u, Stored("admin").disabled_time);
  EXPECT_EQ(2u, Stored("admin").failed_attempts);
  EXPECT_EQ(kStart, Stored("admin").bad_password_time);
  // The time of the load counts as a failure's: even the right password waits.
  SetTime(kStart + 3);
  EXPECT_EQ(18, Logon("admin", "secret"));
  EXPECT_EQ(Texts{"Authentication Failed: Too soon to retry after bad password."}, Notices());
  SetTime(kStart + 4);
  EXPECT_EQ(16, Logon("admin", "wrong"));
}

TEST_F(UserMapLoading, LetsThatAdministratorInAfterTheDelay) {
  MyUser locked = Account("secret", kAdmin);
  locked.disabled_time = kStart - 1;
  Put("admin", locked);
  RestartWithPolicy();
  Store().Size();
  SetTime(kStart + 4);
  EXPECT_EQ(0, Logon("admin", "secret"));
  EXPECT_EQ(0u, Stored("admin").failed_attempts);
}

TEST_F(UserMapLoading, KeepsOtherLockedAccountsLocked) {
  MyUser locked = Account("secret", kViewer);
  locked.disabled_time = 1;
  Put("alice", locked);
  const Texts before = Snapshot();
  RestartWithPolicy();
  EXPECT_TRUE(Store().IsAccountDisabled("alice"));
  EXPECT_EQ(16, Logon("alice", "secret"));
  EXPECT_EQ(locked.ToJson(), StoredText("alice"));
}

TEST_F(UserMapLoading, LeavesALockedAdministratorAloneWithoutPolicy) {
  MyUser locked = Account("secret", kAdmin);
  locked.disabled_time = kStart - 1;
  Put("admin", locked);
  EXPECT_EQ(0, Logon("admin", "secret"));
  EXPECT_EQ(locked.ToJson(), StoredText("admin"));
}

TEST_F(UserMapLoading, ExpiresPasswordsOfForbiddenLength) {
  Put("short", "abc", kViewer);
  Put("least", "abcd", kViewer);
  Put("longest", std::string(64, 'x'), kViewer);
  Put("long", std::string(65, 'x'), kViewer);
  RestartWithPolicy();
  EXPECT_TRUE(Store().IsAccountExpired("short"));
  EXPECT_TRUE(Store().IsAccountExpired("long"));
  EXPECT_FALSE(Store().IsAccountExpired("least"));
  EXPECT_FALSE(Store().IsAccountExpired("longest"));
  EXPECT_EQ(1u, Stored("short").password_time);
  EXPECT_EQ(1u, Stored("long").password_time);
  EXPECT_EQ(kStart, Stored("least").password_time);
}

TEST_F(UserMapLoading, ExpiresPasswordsThatTheKeyDoesNotOpen) {
  MyUser damaged;
  damaged.group = ToGroup(kViewer);
  damaged.password = "c2VjcmV0";
  damaged.password_time = kStart;
  Put("alice", damaged);
  MyUser empty = damaged;
  empty.password = Encrypt("");
  Put("bob", empty);
  RestartWithPolicy();
  for (const char* name : {"alice", "bob"}) {
    EXPECT_TRUE(Store().IsAccountExpired(name)) << name;
    EXPECT_EQ(1u, Stored(name).password_time) << name;
    // Whoever wants to mend it need not wait for the password to come of age.
    EXPECT_EQ(0, Store().ValidatePassword(name, "", "new password")) << name;
  }
  EXPECT_EQ("c2VjcmV0", Stored("alice").password);
  ASSERT_EQ(-1, Merge({{"alice", "new password", kViewer}}));
  EXPECT_FALSE(Store().IsAccountExpired("alice"));
  EXPECT_EQ(0, Logon("alice", "new password"));
}

TEST_F(UserMapLoading, ExpiresAnAccountWithoutAPasswordAndWritesItBackWithoutCounters) {
  settings_.PutJson("user.alice", "{\"Groups\":8, \"NumFailedLoginAttempts\":2}");
  settings_.PutJson("user.nobody", "{\"Groups\":16}");
  const unsigned long writes = krand_core_settings_write_count();
  RestartWithPolicy();
  EXPECT_TRUE(Store().IsAccountExpired("alice"));
  EXPECT_FALSE(Store().IsAccountExpired("nobody"));
  EXPECT_EQ(writes + 1, krand_core_settings_write_count());
  EXPECT_EQ("{\"Groups\":8}", StoredText("alice"));
  EXPECT_EQ(18, Logon("alice", ""));
}

TEST_F(UserMapLoading, ExpiresAPasswordThatCannotBeDecrypted) {
  Put("alice", "secret", kViewer);
  settings_.PutJson("user.damaged", "{\"Groups\":8,\"Password\":\"c2VjcmV0\"}");
  RestartWithPolicy();
  EXPECT_TRUE(Store().IsAccountExpired("damaged"));
  EXPECT_EQ(1u, Stored("damaged").password_time);
  EXPECT_FALSE(Store().IsAccountExpired("alice"));
}

TEST_F(UserMapLoading, WritesAllCorrectionsOfALoadAtOnce) {
  Put("short", "abc", kViewer);
  Put("brief", "ab", kViewer);
  settings_.PutJson("user.nobody", "{\"Groups\":2}");
  const unsigned long writes = krand_core_settings_write_count();
  RestartWithPolicy();
  Store().Size();
  EXPECT_EQ(writes + 1, krand_core_settings_write_count());
}

TEST_F(UserMapLoading, HoldsNobodyDownInMemoryOnlyWhileThePolicyIsEnforced) {
  settings_.PutJson("user.nobody", "{\"Groups\":4}");
  Put("admin", "secret", kAdmin);
  RestartWithPolicy();
  EXPECT_EQ(16u, Store().GetGroup("nobody"));
  EXPECT_EQ(16u, Store().GetNobody()->GetGroup());
  EXPECT_EQ("{\"Groups\":4}", StoredText("nobody"));
}

TEST_F(UserMapLoading, LeavesNobodyItsGroupUntilThereIsAnAdministrator) {
  settings_.PutJson("user.nobody", "{\"Groups\":4}");
  Put("alice", "secret", kViewer);
  RestartWithPolicy();
  EXPECT_EQ(4u, Store().GetGroup("nobody"));
}

TEST_F(UserMapLoading, MakesTheNobodyRecordFromItsGroup) {
  settings_.PutJson("user.nobody", "{\"Groups\":8}");
  const User* const nobody = Store().GetNobody();
  EXPECT_EQ("nobody", nobody->Name());
  EXPECT_EQ("", nobody->Digest());
  EXPECT_EQ(8u, nobody->GetGroup());
  EXPECT_EQ(4u, nobody->Permissions().size());
}

TEST_F(UserMapLoading, RemembersWhetherTheDeviceHasUniquePasswords) {
  EXPECT_FALSE(Store().IsUniquePasswordDevice());
  Store().SetUniquePasswordDevice(true);
  EXPECT_TRUE(Store().IsUniquePasswordDevice());
  EXPECT_TRUE(UserMap(nullptr).IsUniquePasswordDevice());
}

TEST_F(UserMapLoading, ChangeSetsNeverTouchTheSettings) {
  UserMap set(nullptr);
  EXPECT_EQ(0u, set.Size());
  set.Set("alice", "secret", ToGroup(kViewer));
  EXPECT_EQ(1u, set.Size());
  EXPECT_EQ(8u, set.GetGroup("alice"));
  EXPECT_EQ(nullptr, set.GetNobody());
  EXPECT_TRUE(set.NoAdministratorsYet());
  EXPECT_EQ(Texts(), settings_.Keys());
}

TEST_F(UserMapLoading, TakesTheLastOfRepeatedEntriesOfAChangeSet) {
  UserMap set(nullptr);
  set.Set("alice", "first", ToGroup(kAdmin));
  EXPECT_FALSE(set.NoAdministratorsYet());
  set.Set("alice", "second", ToGroup(kAdmin));
  set.Set("alice", "third", ToGroup(kViewer));
  EXPECT_TRUE(set.NoAdministratorsYet());
  EXPECT_EQ(1u, set.Size());
  EXPECT_EQ(-1, Store().Merge(set));
  EXPECT_EQ(0, Logon("alice", "third"));
  EXPECT_EQ(18, Logon("alice", "first"));
}

TEST_F(UserMapLoading, RefusesToBeSetDirectly) {
  try {
    Store().Set("alice", "secret", ToGroup(kViewer));
    FAIL();
  } catch (const Exception& error) {
    EXPECT_STREQ("Use Merge() rather than Set()", error.what());
  }
  EXPECT_FALSE(Store().Exists("alice"));
}

}  // namespace
}  // namespace vigila::server

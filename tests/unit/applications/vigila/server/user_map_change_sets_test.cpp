#include <gtest/gtest.h>

#include "support/library_without_rsa.h"
#include "support/text_thrown_by.h"
#include "support/user_store_fixture.h"

namespace vigila::server {
namespace {

using support::TextThrownBy;

class UserMapChangeSets : public support::UserStoreTest {
 protected:
  UserMapChangeSets() {
    Put("admin", "adminpass", kAdmin);
    Put("alice", "secret", kViewer);
  }
  // Everything an observer can see of the store and its settings.
  Texts Everything() {
    Store().Size();  // the load makes nobody
    Texts texts = Snapshot();
    texts.push_back(Store().GetAllJson());
    texts.push_back(Store().NoAdministratorsYet() ? "open" : "closed");
    return texts;
  }
};

TEST_F(UserMapChangeSets, AddsAnAccount) {
  SetTime(kStart + 5);
  EXPECT_EQ(-1, Merge({{"bob", "bobs word", 4}}));
  EXPECT_EQ(4u, Store().GetGroup("bob"));
  EXPECT_EQ(0, Logon("bob", "bobs word"));
  const MyUser stored = Stored("bob");
  EXPECT_EQ("bobs word", Decrypt(stored.password));
  EXPECT_EQ(4u, stored.group);
  EXPECT_EQ(kStart + 5, stored.password_time);
  EXPECT_EQ(0u, stored.failed_attempts);
  EXPECT_EQ(Texts(), History("bob"));
}

TEST_F(UserMapChangeSets, NeverStoresAPasswordInClear) {
  Merge({{"bob", "bobs word", 4}});
  Merge({{"bob", "new word", 4}});
  for (const std::string& text : Snapshot()) {
    EXPECT_EQ(std::string::npos, text.find("bobs word"));
    EXPECT_EQ(std::string::npos, text.find("new word"));
  }
  EXPECT_FALSE(log_.Contains("word"));
}

TEST_F(UserMapChangeSets, KeepsAllAccountsOverARestart) {
  Merge({{"bob", "bobs word", 4}, {"alice", "new word", 2}});
  Restart();
  EXPECT_EQ(0, Logon("bob", "bobs word"));
  EXPECT_EQ(0, Logon("alice", "new word"));
  EXPECT_EQ(2u, Store().GetGroup("alice"));
}

TEST_F(UserMapChangeSets, ClosesTheDeviceWithTheFirstAdministrator) {
  settings_.Delete("user.admin");
  EXPECT_TRUE(Store().NoAdministratorsYet());
  EXPECT_EQ(-1, Merge({{"bob", "bobs word", 4}}));
  EXPECT_TRUE(Store().NoAdministratorsYet());
  EXPECT_EQ(-1, Merge({{"root", "roots word", kAdmin}}));
  EXPECT_FALSE(Store().NoAdministratorsYet());
}

TEST_F(UserMapChangeSets, LetsNoOneInToAnAccountAddedWithoutAPassword) {
  EXPECT_EQ(-1, Merge({{"bob", "", 8}}));
  EXPECT_EQ("{\"Groups\":8}", StoredText("bob"));
  EXPECT_EQ(18, Logon("bob", ""));
  EXPECT_EQ(-1, Merge({{"bob", "bobs word", 8}}));
  EXPECT_EQ(0, Logon("bob", "bobs word"));
}

TEST_F(UserMapChangeSets, WritesNothingWhenNothingChanges) {
  Store().Size();
  const std::string token = Enroll("alice");
  const unsigned long writes = krand_core_settings_write_count();
  const Texts before = Everything();
  EXPECT_EQ(0, Merge({}));
  EXPECT_EQ(0, Merge({{"alice", "", kViewer}}));
  EXPECT_EQ(0, Merge({{"nobody", "", 16}}));
  EXPECT_EQ(before, Everything());
  EXPECT_EQ(writes, krand_core_settings_write_count());
  EXPECT_TRUE(Lives(token));
}

TEST_F(UserMapChangeSets, TakesThePresentPasswordForNoChange) {
  const Texts before = Everything();
  EXPECT_EQ(0, Merge({{"alice", "secret", kViewer}}));
  EXPECT_EQ(before, Everything());
}

TEST_F(UserMapChangeSets, ChangesOnlyTheGroupWithThePresentPassword) {
  const std::string password = Stored("alice").password;
  EXPECT_EQ(-1, Merge({{"alice", "secret", 4}}));
  EXPECT_EQ(password, Stored("alice").password);
  EXPECT_EQ(4u, Stored("alice").group);
  EXPECT_EQ(Texts(), History("alice"));
}

TEST_F(UserMapChangeSets, GivesTheSameAnswerToASetOnceMoreAsToNoChange) {
  const auto set = ChangeSet({{"alice", "new word", 4}});
  EXPECT_EQ(-1, Store().Merge(*set));
  EXPECT_EQ(0, Store().Merge(*set));
}

TEST_F(UserMapChangeSets, ResetsTheCountersWithANewPassword) {
  MyUser locked = Account("secret", kViewer);
  locked.disabled_time = kStart - 5;
  locked.failed_attempts = 3;
  locked.bad_password_time = kStart - 10;
  Put("alice", locked);
  const std::string token = Enroll("alice"), other = Enroll("admin");
  SetTime(kStart + 7);
  EXPECT_EQ(-1, Merge({{"alice", "new word", kViewer}}));
  const MyUser stored = Stored("alice");
  EXPECT_EQ("new word", Decrypt(stored.password));
  EXPECT_EQ(kStart + 7, stored.password_time);
  EXPECT_EQ(0u, stored.disabled_time);
  EXPECT_EQ(0u, stored.failed_attempts);
  EXPECT_EQ(0u, stored.bad_password_time);
  EXPECT_EQ(Texts{"secret"}, History("alice"));
  EXPECT_FALSE(Lives(token));
  EXPECT_TRUE(Lives(other));
}

TEST_F(UserMapChangeSets, KeepsTheCountersWithANewGroup) {
  MyUser locked = Account("secret", kViewer);
  locked.disabled_time = kStart - 5;
  locked.failed_attempts = 3;
  locked.bad_password_time = kStart - 10;
  Put("alice", locked);
  const std::string token = Enroll("alice");
  SetTime(kStart + 7);
  EXPECT_EQ(-1, Merge({{"alice", "", 4}}));
  locked.group = ToGroup(4);
  EXPECT_EQ(locked.ToJson(), StoredText("alice"));
  EXPECT_FALSE(Lives(token));
}

TEST_F(UserMapChangeSets, LetsOnlyADifferentPasswordUnlockAnAccount) {
  MyUser locked = Account("secret", kViewer);
  locked.disabled_time = kStart;
  Put("alice", locked);
  RestartWithPolicy();
  EXPECT_EQ(-1, Merge({{"alice", "", 4}}));
  EXPECT_TRUE(Store().IsAccountDisabled("alice"));
  EXPECT_EQ(0, Merge({{"alice", "secret", 4}}));
  EXPECT_TRUE(Store().IsAccountDisabled("alice"));
  EXPECT_EQ(-1, Merge({{"alice", "new word", 4}}));
  EXPECT_FALSE(Store().IsAccountDisabled("alice"));
}

TEST_F(UserMapChangeSets, KeepsTheLastAdministrator) {
  const Texts before = Everything();
  const std::string token = Enroll("admin"), other = Enroll("alice");
  EXPECT_EQ(11, Merge({{"admin", "", kViewer}}));
  EXPECT_EQ(11, Merge({{"admin", "new word", kViewer}, {"alice", "new word", 4}}));
  EXPECT_EQ(before, Everything());
  EXPECT_EQ(0, Logon("admin", "adminpass"));
  EXPECT_EQ(0, Logon("alice", "secret"));
  EXPECT_EQ(Texts(), History("admin"));
  EXPECT_TRUE(Lives(token));
  EXPECT_TRUE(Lives(other));
}

TEST_F(UserMapChangeSets, LetsOneOfTwoAdministratorsGo) {
  EXPECT_EQ(-1, Merge({{"second", "seconds word", kAdmin}}));
  EXPECT_EQ(-1, Merge({{"admin", "", kViewer}}));
  EXPECT_EQ(11, Merge({{"second", "", kViewer}}));
  EXPECT_FALSE(Store().NoAdministratorsYet());
}

TEST_F(UserMapChangeSets, LetsTheOfficeChangeHandsInOneSet) {
  EXPECT_EQ(-1, Merge({{"admin", "", kViewer}, {"alice", "", kAdmin}}));
  EXPECT_EQ(11, Merge({{"alice", "", kViewer}}));
}

TEST_F(UserMapChangeSets, AllowsNoAdministratorWhereThereIsNone) {
  settings_.Delete("user.admin");
  EXPECT_EQ(-1, Merge({{"alice", "", 4}}));
  EXPECT_EQ(0, Delete({{"alice", "", 4}}));
}

TEST_F(UserMapChangeSets, ChangesNobodysGroupAndRecord) {
  const std::string token = Enroll("alice");
  EXPECT_EQ(-1, Merge({{"nobody", "", kViewer}}));
  EXPECT_EQ(8u, Store().GetGroup("nobody"));
  EXPECT_EQ(8u, Store().GetNobody()->GetGroup());
  EXPECT_EQ(4u, Store().GetNobody()->Permissions().size());
  EXPECT_EQ("{\"Groups\":8}", StoredText("nobody"));
  EXPECT_TRUE(Lives(token));
}

TEST_F(UserMapChangeSets, LetsNobodyLoseEveryPermission) {
  EXPECT_EQ(-1, Merge({{"nobody", "", 0}}));
  EXPECT_TRUE(Store().GetNobody()->Permissions().empty());
  Restart();
  EXPECT_EQ(0u, Store().GetNobody()->GetGroup());
}

TEST_F(UserMapChangeSets, KeepsTheNobodyRecordWhenItsGroupStays) {
  const User* const before = Store().GetNobody();
  EXPECT_EQ(-1, Merge({{"bob", "bobs word", 8}}));
  EXPECT_EQ(before, Store().GetNobody());
}

TEST_F(UserMapChangeSets, StoresNobodysRequestedGroupButHoldsItDownUnderPolicy) {
  RestartWithPolicy();
  EXPECT_EQ(-1, Merge({{"nobody", "", kViewer}}));
  EXPECT_EQ("{\"Groups\":8}", StoredText("nobody"));
  EXPECT_EQ(16u, Store().GetGroup("nobody"));
  EXPECT_EQ(16u, Store().GetNobody()->GetGroup());
}

TEST_F(UserMapChangeSets, CountsNobodyAmongNoAdministrators) {
  settings_.Delete("user.admin");
  EXPECT_EQ(-1, Merge({{"nobody", "", kAdmin}}));
  EXPECT_TRUE(Store().NoAdministratorsYet());
  EXPECT_EQ(-1, Merge({{"nobody", "", 16}}));
  EXPECT_TRUE(Store().NoAdministratorsYet());
}

TEST_F(UserMapChangeSets, GivesNobodyAPasswordThatOpensNothing) {
  EXPECT_EQ(-1, Merge({{"nobody", "some word", 16}}));
  EXPECT_EQ("some word", Decrypt(Stored("nobody").password));
  EXPECT_EQ(10, Logon("nobody", "some word"));
}

TEST_F(UserMapChangeSets, FlushesOnceForAnyNumberOfChanges) {
  Store().Size();
  const unsigned long writes = krand_core_settings_write_count();
  EXPECT_EQ(-1, Merge({{"alice", "new word", 4}, {"bob", "bobs word", 8}, {"nobody", "", 8}}));
  EXPECT_EQ(writes + 1, krand_core_settings_write_count());
  EXPECT_EQ(0, Delete({{"alice", "", 4}, {"bob", "", 8}}));
  EXPECT_EQ(writes + 2, krand_core_settings_write_count());
}

TEST_F(UserMapChangeSets, WritesOnlyTheChangedAccounts) {
  Store().Size();
  Put("admin", "changed past the store", kAdmin);
  EXPECT_EQ(-1, Merge({{"alice", "", 4}}));
  EXPECT_EQ("changed past the store", Decrypt(Stored("admin").password));
}

TEST_F(UserMapChangeSets, WritesNoObjectThatItCouldNotReadBack) {
  settings_.PutJson("user.odd", "{\"Groups\":8,\"Password\":\"a\\\"b\\\\c\\u0000\\n\"}");
  EXPECT_EQ(-1, Merge({{"odd", "", 4}}));
  Restart();
  EXPECT_EQ(4u, Store().GetGroup("odd"));
  EXPECT_EQ(std::string("a\"b\\c\0\n", 7), Stored("odd").password);
}

TEST_F(UserMapChangeSets, DoesNotRepeatTheCorrectionsOfTheLoad) {
  settings_.PutJson("user.nobody", "{\"Groups\":1}");
  Store().Size();
  settings_.PutJson("user.nobody", "{\"Groups\":4}");
  EXPECT_EQ(-1, Merge({{"alice", "", 4}}));
  EXPECT_EQ("{\"Groups\":4}", StoredText("nobody"));
}

TEST_F(UserMapChangeSets, ChangesNothingWhicheverWriteOfAMergeFails) {
  const Texts before = Everything();
  const std::string token = Enroll("alice");
  const User* const nobody = Store().GetNobody();
  int n = 1;
  for (; n < 20; ++n) {
    krand_core_settings_fail_after(n);
    try {
      EXPECT_EQ(-1,
                Merge({{"alice", "new word", kAdmin}, {"bob", "bobs word", 8}, {"nobody", "", 8}}));
      break;
    } catch (const Exception&) {
      EXPECT_EQ(before, Everything()) << n;
      EXPECT_EQ(0, Logon("alice", "secret")) << n;
      EXPECT_TRUE(Lives(token)) << n;
      EXPECT_EQ(nobody, Store().GetNobody()) << n;
      EXPECT_EQ(static_cast<size_t>(n), Errors().size());
    }
  }
  krand_core_settings_fail_after(-1);
  EXPECT_EQ(6, n);  // a history, three accounts, the commit
  EXPECT_FALSE(Lives(token));
  EXPECT_EQ(0, Logon("alice", "new word"));
  EXPECT_EQ(8u, Store().GetNobody()->GetGroup());
}

TEST_F(UserMapChangeSets, KeepsTheAccountsButNotTheSessionsWhicheverWriteOfADeletionFails) {
  Merge({{"bob", "bobs word", 8}, {"second", "seconds word", kAdmin}});
  const Texts before = Everything();
  std::string alice, bob;
  int n = 1;
  for (; n < 20; ++n) {
    alice = Enroll("alice");
    bob = Enroll("bob");
    krand_core_settings_fail_after(n);
    try {
      EXPECT_EQ(0, Delete({{"alice", "", 8}, {"bob", "", 8}, {"second", "", kAdmin}}));
      break;
    } catch (const Exception&) {
      EXPECT_EQ(before, Everything()) << n;
      EXPECT_EQ(0, Logon("alice", "secret")) << n;
      EXPECT_FALSE(Lives(alice)) << n;
      EXPECT_EQ(n == 1, Lives(bob)) << "his turn comes after alice's key";
    }
  }
  krand_core_settings_fail_after(-1);
  EXPECT_EQ(5, n);  // three accounts, the commit
  EXPECT_FALSE(Lives(alice));
  EXPECT_FALSE(Lives(bob));
  EXPECT_FALSE(Store().Exists("alice"));
  EXPECT_EQ(11, Delete({{"admin", "", kAdmin}})) << "the other one is gone";
}

TEST_F(UserMapChangeSets, ChangesNothingWhenAPasswordCannotBeEncrypted) {
  const Texts before = Everything();
  const support::LibraryWithoutRsa library;
  EXPECT_THROW(Merge({{"alice", "", 4}, {"bob", "bobs word", 8}}), Exception);
  EXPECT_EQ(before, Everything());
}

TEST_F(UserMapChangeSets, RefusesNamesThatWouldShareAKey) {
  const Texts before = Everything();
  const std::string name("alice\0", 6);
  EXPECT_THROW(Merge({{"bob", "bobs word", 8}, {name, "bobs word", 8}}), Exception);
  EXPECT_THROW(Delete({{name, "", 8}}), Exception);
  EXPECT_EQ(before, Everything());
}

TEST_F(UserMapChangeSets, SaysWhichUseIsWrong) {
  UserMap other(clock_, sessions_, Cipher());
  UserMap set(nullptr), set2(nullptr);
  EXPECT_EQ("Can't merge UserMap into itself", TextThrownBy([&] { Store().Merge(Store()); }));
  EXPECT_EQ("Can't merge UserMap into itself", TextThrownBy([&] { Store().Delete(Store()); }));
  EXPECT_EQ("Can't merge UserMap into itself", TextThrownBy([&] { set.Merge(set); }));
  EXPECT_EQ("Use Set() rather than Merge()", TextThrownBy([&] { set.Merge(set2); }));
  EXPECT_EQ("Use Set() rather than Merge()", TextThrownBy([&] { set.Merge(Store()); }));
  EXPECT_EQ("Merge() takes change set as argument", TextThrownBy([&] { Store().Merge(other); }));
  EXPECT_EQ("Use Set() rather than Delete()", TextThrownBy([&] { set.Delete(set2); }));
  EXPECT_EQ("Use Set() rather than Delete()", TextThrownBy([&] { set.Delete(Store()); }));
  EXPECT_EQ("Delete() takes change set as argument", TextThrownBy([&] { Store().Delete(other); }));
}

TEST_F(UserMapChangeSets, DeletesAnAccountItsKeyAndItsSessions) {
  const std::string token = Enroll("alice"), other = Enroll("admin");
  EXPECT_EQ(0, Delete({{"alice", "", kViewer}}));
  EXPECT_FALSE(Store().Exists("alice"));
  EXPECT_FALSE(settings_.Exists("user.alice"));
  EXPECT_EQ(10, Logon("alice", "secret"));
  EXPECT_FALSE(Lives(token));
  EXPECT_TRUE(Lives(other));
}

TEST_F(UserMapChangeSets, LeavesTheHistoryOfADeletedAccount) {
  Merge({{"alice", "new word", kViewer}});
  Delete({{"alice", "", kViewer}});
  EXPECT_EQ(Texts{"secret"}, History("alice"));
}

TEST_F(UserMapChangeSets, DeletesNotTheLastAdministrator) {
  const Texts before = Everything();
  const std::string token = Enroll("admin"), other = Enroll("alice");
  EXPECT_EQ(11, Delete({{"admin", "", kAdmin}}));
  EXPECT_EQ(11, Delete({{"alice", "", kViewer}, {"admin", "", kAdmin}}));
  EXPECT_EQ(before, Everything());
  EXPECT_TRUE(Lives(token));
  EXPECT_TRUE(Lives(other));
}

TEST_F(UserMapChangeSets, DeletesOneOfTwoAdministrators) {
  Merge({{"second", "seconds word", kAdmin}});
  const std::string token = Enroll("admin");
  EXPECT_EQ(0, Delete({{"admin", "", kAdmin}}));
  EXPECT_FALSE(Lives(token));
  EXPECT_FALSE(settings_.Exists("user.admin"));
  EXPECT_EQ(11, Delete({{"second", "", kAdmin}}));
}

TEST_F(UserMapChangeSets, CountsTheAdministratorsThatTheDeletionNames) {
  // The change set calls the viewer an administrator, and there is but one.
  EXPECT_EQ(11, Delete({{"alice", "", kAdmin}}));
  EXPECT_TRUE(Store().Exists("alice"));
}

TEST_F(UserMapChangeSets, NeverCountsBelowNoAdministrator) {
  settings_.Delete("user.admin");
  EXPECT_EQ(0, Delete({{"alice", "", kAdmin}}));
  EXPECT_TRUE(Store().NoAdministratorsYet());
}

TEST_F(UserMapChangeSets, DeletesNothingForAnEmptySetOrAnUnknownName) {
  const Texts before = Everything();
  EXPECT_EQ(0, Delete({}));
  EXPECT_EQ(0, Delete({{"nosuch", "", kViewer}}));
  EXPECT_EQ(before, Everything());
}

TEST_F(UserMapChangeSets, ReadsTheStoreBeforeItMerges) {
  settings_.PutJson("user.broken", "{}");
  EXPECT_THROW(Merge({{"bob", "bobs word", 8}}), Exception);
  EXPECT_FALSE(settings_.Exists("user.bob"));
}

TEST_F(UserMapChangeSets, KeepsAThousandAccounts) {
  std::vector<Change> changes;
  for (int i = 0; i < 1000; ++i) changes.push_back({"user" + std::to_string(i), "", 8});
  EXPECT_EQ(-1, Merge(changes));
  Restart();
  EXPECT_EQ(1003u, Store().Size());
}

}  // namespace
}  // namespace vigila::server

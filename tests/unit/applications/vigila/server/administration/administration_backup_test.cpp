// Backups and restorations on a server, as its administrators ask for them.
#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "administration_fixture.h"
#include "krand/base64/base64.h"
#include "support/sealed_backup.h"
#include "support/settings_fixture.h"
#include "support/text_thrown_by.h"
#include "vigila/contract/result_codes.h"
#include "vigila/server/permission_impl.h"

namespace vigila::server {
namespace {

using support::FullContent;
using support::kBackupPassphrase;
using support::Sealed;
using support::WithCheckSum;

using support::SettingsFixture;

class BackupTest : public AdministrationTest {
 protected:
  // Every setting, with its secrets in clear.
  std::map<std::string, std::string> ClearStore() {
    std::map<std::string, std::string> store;
    for (const std::string& key : SettingsFixture::Keys("user.")) {
      Json account = Json::parse(*SettingsFixture::GetJson(key));
      if (account.contains("Password")) account["Password"] = Clear(account["Password"]);
      store[key] = account.dump();
    }
    for (const std::string& key : SettingsFixture::Keys("phrase.")) {
      Json phrase = Json::parse(*SettingsFixture::GetJson(key));
      phrase["Phrase"] = Clear(phrase["Phrase"]);
      store[key] = phrase.dump();
    }
    for (const std::string& key : SettingsFixture::Keys("oldPasswords.")) {
      const std::vector<std::string> passwords = *SettingsFixture::GetArray(key);
      for (const std::string& old : passwords) store[key] += Clear(old) + " ";
    }
    for (const std::string& key : SettingsFixture::Keys("rule.")) {
      store[key] = *SettingsFixture::GetString(key);
    }
    return store;
  }
  std::string Clear(const std::string& stored) {
    return std::string(server_.Env().GetAtRestCipher().Decrypt(stored)->View());
  }

  template <typename Ask>
  static Json Await(Ask ask) {
    for (;;) {
      Json answer = Parse(ask());
      if (answer["Code"] != 0 || answer["Ready"]) return answer;
      std::this_thread::yield();
    }
  }
  std::string Save() {
    const std::string id = Parse(administration_.StartBackup(Role(), kBackupPassphrase))["Id"];
    std::string file;
    for (size_t size = 1; file.size() < size;) {
      const auto offset = static_cast<uint32_t>(file.size());
      const Json piece = Await([&] { return administration_.GetBackup(Role(), id, offset); });
      size = piece["Size"];
      file += krand::lib::Base64::Decode(piece["Data"]);
    }
    return file;
  }
  std::string Put(const std::string& file) {
    return Parse(administration_.PutBackup(Role(), "", 0, file))["Id"];
  }
  int StartCode(const std::string& file) {
    return CodeOf(administration_.StartRestore(Role(), Put(file), kBackupPassphrase));
  }
  // The identifier of a restoration that could be committed.
  std::string Offer(const std::string& file) {
    const std::string id = Put(file);
    EXPECT_EQ(CodeOf(administration_.StartRestore(Role(), id, kBackupPassphrase)), 0);
    EXPECT_EQ(Plan(id)["Code"], 0);
    return id;
  }
  Json Plan(const std::string& id) {
    return Await([&] { return administration_.GetRestorePlan(Role(), id); });
  }
  int Restore(const std::string& file) {
    return CodeOf(administration_.CommitRestore(Role(), Offer(file)));
  }
  int SetRule(const char* path, const char* rule) {
    return server_.Env().GetPermission().setAccessRule(path, rule);
  }
  void Modify(const std::string& entry) {
    EXPECT_EQ(Provider().ModifyUsers(support::UsersJson({entry})), 0);
  }
  void ChangeEverything() {
    EXPECT_EQ(Provider().DeleteUsers({"bob"}), 0);
    Add("carl", "carlpass", 1);
    server_.AdvanceSeconds(2 * 86400);
    Modify(support::UserJson("admin", "another password", 1));
    const Json document = Json::parse(Provider().GetPassphrases());
    for (const Json& phrase : document["Passphrases"]) {
      Provider().DeletePassphrase(phrase["ID"]);
    }
    Provider().AddPassphrase("something else", "dns");
    EXPECT_EQ(SetRule("/rtsp/*", "true"), 0);
  }
};

TEST_F(BackupTest, ARestoredDeviceHasEverythingAsItWas) {
  server_.AdvanceSeconds(2 * 86400);
  Modify(support::UserJson("olga", "olgapass2", 2));
  Modify(support::UserJson("nobody", 8));
  const std::string phrase = Provider().AddPassphrase("secret\nphrase", "ntp");
  ASSERT_EQ(SetRule("/rtsp/*", "@managers"), 0);
  LockOut("bob");
  const auto before = ClearStore();
  const std::string file = Save();
  ChangeEverything();
  ASSERT_NE(ClearStore(), before);
  EXPECT_EQ(Restore(file), 0);
  EXPECT_EQ(ClearStore(), before);
  // And so says the server, without a restart.
  EXPECT_EQ(Account("bob")["Locked"], true);
  EXPECT_TRUE(IsToken(Logon("olga", "olgapass2")));
  EXPECT_TRUE(IsToken(Logon("admin", "adminpass")));
  EXPECT_FALSE(Provider().Users().Exists("carl"));
  EXPECT_EQ(Provider().GetPassphrase(phrase), "secret\nphrase");
  char* rule = nullptr;
  ASSERT_EQ(server_.Env().GetPermission().getAccessRule("/rtsp/*", &rule), 0);
  EXPECT_STREQ(rule, "@managers");
  free(rule);
  EXPECT_FALSE(Provider().Authorize("NO_TOKEN", "/rtsp/1"));
}

TEST_F(BackupTest, EndsAllSessionsAndTellsClientsOnce) {
  const std::string file = Save();
  support::ChangeRecorder changes;
  changes.Attach(Provider());
  const std::string token = TokenOf("olga");
  const std::string id = Offer(file);
  EXPECT_TRUE(Lives(token)) << "nothing has changed yet";
  EXPECT_EQ(changes.Values(), std::vector<bool>());
  EXPECT_EQ(CodeOf(administration_.CommitRestore(Role(), id)), 0);
  EXPECT_FALSE(Lives(token));
  EXPECT_EQ(changes.Values(), std::vector<bool>{true});
  EXPECT_EQ(CodeOf(administration_.CommitRestore(Role(), id)), contract::kNoSuchTask) << "once";
}

TEST_F(BackupTest, SaysWhatItWouldChange) {
  const std::string file = Save();
  ChangeEverything();
  const Json plan = Plan(Offer(file));
  EXPECT_EQ(plan["Holds"], Json::parse(R"({"Accounts":4,"Passphrases":0,"Rules":3})"));
  EXPECT_EQ(plan["Accounts"], Json::parse(R"({"Added":{"Count":1,"Names":[{"Name":"bob"}]},
      "Changed":{"Count":1,"Names":[{"Name":"admin"}]},
      "Removed":{"Count":1,"Names":[{"Name":"carl"}]}})"));
  EXPECT_EQ(plan["Passphrases"]["Removed"]["Count"], 1);
  ASSERT_EQ(plan["Rules"].size(), 1u);
  EXPECT_EQ(plan["Rules"][0]["Pattern"], "/rtsp/*");
  EXPECT_EQ(plan["Rules"][0]["TextNow"], "true");
  EXPECT_EQ(plan["UnknownRules"], 0);
}

TEST_F(BackupTest, IsRefusedWhenItIsDamagedNewerOrOfAnotherPassphrase) {
  const std::string file = Save();
  const auto before = ClearStore();
  EXPECT_EQ(StartCode(""), contract::kBackupDamaged);
  EXPECT_EQ(StartCode(file.substr(1)), contract::kBackupDamaged);
  std::string newer = file;
  newer[11] = 2;
  EXPECT_EQ(StartCode(WithCheckSum(newer)), contract::kBackupNewer);
  const std::string id = Put(file);
  EXPECT_EQ(CodeOf(administration_.StartRestore(Role(), id, "not the passphrase")), 0);
  EXPECT_EQ(Plan(id)["Code"], contract::kBackupLocked);
  EXPECT_EQ(CodeOf(administration_.CommitRestore(Role(), id)), contract::kBackupLocked);
  EXPECT_EQ(ClearStore(), before);
}

TEST_F(BackupTest, OfAFullDeviceIsRefusedCutOrFlippedAnywhereAndElseRestored) {
  std::deque<std::string> secrets;
  const std::string file = Sealed(FullContent(secrets));
  const auto before = ClearStore();
  for (size_t length = 0; length < file.size(); length += 1024) {
    ASSERT_EQ(StartCode(file.substr(0, length)), contract::kBackupDamaged) << length;
  }
  std::string damaged = file;
  for (size_t at = 0; at < file.size(); at += 1000) {
    damaged[at] = static_cast<char>(~damaged[at]);
    ASSERT_EQ(StartCode(damaged), contract::kBackupDamaged) << at;
    damaged[at] = file[at];
  }
  EXPECT_EQ(ClearStore(), before);
  EXPECT_EQ(Restore(file), 0);
  EXPECT_EQ(Provider().Users().Size(), 1024u);
  EXPECT_TRUE(IsToken(Logon("account.10999", "password 10999")));
}

// Thousands of decryptions take longer than a logon by far.
TEST_F(BackupTest, OfAFullDeviceLetsLogonsThroughAndNoOtherWhileItIsMade) {
  std::deque<std::string> secrets;
  ASSERT_EQ(Restore(Sealed(FullContent(secrets))), 0);
  const std::string id = Parse(administration_.StartBackup(Role(), kBackupPassphrase))["Id"];
  EXPECT_TRUE(IsToken(Logon("account.10500", "password 10500")));
  EXPECT_EQ(CodeOf(administration_.StartBackup(Role(), kBackupPassphrase)), contract::kBusy);
  EXPECT_EQ(CodeOf(administration_.PutBackup(Role(), "", 0, "x")), contract::kBusy);
  EXPECT_EQ(Parse(administration_.GetBackup(Role(), id, 0))["Ready"], false);
}

TEST_F(BackupTest, ThatCannotBeWrittenChangesNothing) {
  const std::string file = Save();
  ChangeEverything();
  const auto before = ClearStore();
  const std::string token = Logon("carl", "carlpass");
  const std::string id = Offer(file);
  int failures = 0;
  for (int write = 1; write < 100; ++write) {
    krand_core_settings_fail_after(write);
    const std::string failure =
        support::TextThrownBy([&] { administration_.CommitRestore(Role(), id); });
    krand_core_settings_fail_after(-1);
    if (failure == "nothing thrown") break;
    ++failures;
    ASSERT_EQ(ClearStore(), before) << write;
    ASSERT_TRUE(Provider().Users().Exists("carl")) << write;
    ASSERT_TRUE(Lives(token)) << write;
    ASSERT_TRUE(Provider().Authorize("NO_TOKEN", "/rtsp/1")) << write;
  }
  EXPECT_GT(failures, 8);
  EXPECT_FALSE(Provider().Users().Exists("carl")) << "the disk has room again";
}

TEST_F(BackupTest, IsNotRestoredOverAccountsThatChangedSinceTheyWereLookedAt) {
  const std::string file = Save();
  const std::string id = Offer(file);
  Logon("bob", "wrong password");  // changes what is stored, but nothing that was decided
  Add("carl", "carlpass", 4);
  EXPECT_EQ(CodeOf(administration_.CommitRestore(Role(), id)), contract::kStoreChanged);
  EXPECT_TRUE(Provider().Users().Exists("carl"));
  EXPECT_EQ(Provider().DeleteUsers({"carl"}), 0);
  EXPECT_EQ(CodeOf(administration_.CommitRestore(Role(), id)), 0);
}

TEST_F(BackupTest, WithoutAnAdministratorIsNotRestored) {
  BackupContent content;
  content.accounts["nobody"].group = 16;
  content.accounts["bob"] = {8, 1800000000, 0, 0, 0, "bobpass1"};
  const std::string id = Put(Sealed(content));
  EXPECT_EQ(CodeOf(administration_.StartRestore(Role(), id, kBackupPassphrase)), 0);
  EXPECT_EQ(Plan(id)["Code"], contract::kLastAdministrator);
  EXPECT_EQ(CodeOf(administration_.CommitRestore(Role(), id)), contract::kLastAdministrator);
  EXPECT_TRUE(IsToken(Logon("admin", "adminpass")));
}

TEST_F(BackupTest, NeedsAPassphraseOfTwelveBytes) {
  EXPECT_EQ(CodeOf(administration_.StartBackup(Role(), "eleven byte")),
            contract::kPassphraseTooShort);
  EXPECT_EQ(CodeOf(administration_.StartBackup(Role(), "twelve bytes")), 0);
}

TEST_F(BackupTest, IsKnownByItsIdentifierUntilAnotherIsBegun) {
  EXPECT_EQ(CodeOf(administration_.GetBackup(Role(), "", 0)), contract::kNoSuchTask);
  EXPECT_EQ(CodeOf(administration_.StartRestore(Role(), "", kBackupPassphrase)),
            contract::kNoSuchTask);
  const std::string file = Save();
  const std::string first = Put(file);
  const std::string second = Put("");
  EXPECT_EQ(CodeOf(administration_.PutBackup(Role(), first, 0, "x")), contract::kNoSuchTask);
  EXPECT_EQ(CodeOf(administration_.StartRestore(Role(), first, kBackupPassphrase)),
            contract::kNoSuchTask);
  EXPECT_EQ(CodeOf(administration_.GetRestorePlan(Role(), second)), contract::kNoSuchTask);
  EXPECT_EQ(CodeOf(administration_.CommitRestore(Role(), second)), contract::kNoSuchTask);
}

TEST_F(BackupTest, ComesInPiecesThatFollowEachOther) {
  const std::string id = Put("begin");
  EXPECT_EQ(CodeOf(administration_.PutBackup(Role(), id, 4, "x")), contract::kMalformed);
  EXPECT_EQ(CodeOf(administration_.PutBackup(Role(), id, 6, "x")), contract::kMalformed);
  EXPECT_EQ(CodeOf(administration_.PutBackup(Role(), "", 5, "x")), contract::kMalformed);
  EXPECT_EQ(CodeOf(administration_.PutBackup(Role(), id, 5, "x")), 0);
  EXPECT_EQ(CodeOf(administration_.PutBackup(Role(), id, 6, std::string(8 << 20, 'x'))),
            contract::kBackupTooLarge);
}

}  // namespace
}  // namespace vigila::server

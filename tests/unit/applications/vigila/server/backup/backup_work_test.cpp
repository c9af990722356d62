#include "vigila/server/backup/backup_work.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "support/at_rest_key_fixture.h"
#include "support/sealed_backup.h"
#include "support/temp_dir.h"
#include "vigila/contract/result_codes.h"
#include "vigila/server/at_rest_cipher.h"

namespace vigila::server {
namespace {

using support::kBackupPassphrase;

using tevra::core::SecretText;
using Group = UserMap::ISecurityProvider::Group;

// A key of another device.
class OtherKey {
 public:
  OtherKey() {
    AtRestKey::Create(dir_.File("other.key"), AtRestKey::kMinimumBits);
    cipher_.Open(true);
  }
  AtRestCipher& Cipher() { return cipher_; }

 private:
  const support::TempDir dir_;
  AtRestCipher cipher_{dir_.File("other.key")};
};

class BackupWork : public testing::Test {
 protected:
  BackupWork() {
    cipher_.Open(true);
    store_.accounts["nobody"].group = Group{16};
    store_.accounts["admin"] = Account("adminpass", 1);
    store_.accounts["bob"] = Account("bobpass1", 8);
    store_.histories["bob"] = {*cipher_.Encrypt("bobpass0")};
    store_.passphrases["_1"].alias = "ntp";
    store_.passphrases["_1"].phrase = *cipher_.Encrypt("phrase");
    store_.rules["/jpeg*"] = "@operators";
  }
  UserMap::Impl::MyUser Account(const std::string& password, int group) {
    UserMap::Impl::MyUser user;
    user.password = *cipher_.Encrypt(password);
    user.group = static_cast<Group>(group);
    user.password_time = 1800000000;
    user.failed_attempts = 2;
    return user;
  }
  SavedBackup Save() { return SaveBackup(store_, cipher_, passphrase_, stop_); }
  StagedRestore Stage(const std::string& file, const StoreImage& present, AtRestCipher& cipher) {
    return StageRestore(file, passphrase_, present, cipher, stop_);
  }
  static std::string Clear(AtRestCipher& cipher, const std::string& stored) {
    const auto clear = cipher.Decrypt(stored);
    return clear ? std::string(clear->View()) : "(nothing)";
  }

  AtRestCipher cipher_{support::AtRestKeyFixture::Path()};
  const SecretText passphrase_{kBackupPassphrase};
  std::atomic<bool> stop_ = false;
  StoreImage store_;
};

TEST_F(BackupWork, BringsAStoreUnderTheKeyOfAnotherDevice) {
  OtherKey other;
  StoreImage empty;
  empty.rules["/jpeg*"] = "true";
  const SavedBackup saved = Save();
  EXPECT_EQ(saved.unreadable, 0u);
  const StagedRestore staged = Stage(saved.file, empty, other.Cipher());
  ASSERT_EQ(staged.code, contract::kApplied);
  const StoreImage& image = staged.image;
  ASSERT_EQ(image.accounts.size(), 3u);
  EXPECT_EQ(Clear(other.Cipher(), image.accounts.at("admin").password), "adminpass");
  EXPECT_EQ(Clear(cipher_, image.accounts.at("admin").password), "(nothing)");
  EXPECT_EQ(image.accounts.at("bob").group, Group{8});
  EXPECT_EQ(image.accounts.at("bob").password_time, 1800000000u);
  EXPECT_EQ(image.accounts.at("bob").failed_attempts, 2u);
  EXPECT_EQ(image.accounts.at("nobody").ToJson(), "{\"Groups\":16}");
  ASSERT_EQ(image.histories.at("bob").size(), 1u);
  EXPECT_EQ(Clear(other.Cipher(), image.histories.at("bob")[0]), "bobpass0");
  EXPECT_EQ(image.passphrases.at("_1").alias, "ntp");
  EXPECT_EQ(Clear(other.Cipher(), image.passphrases.at("_1").phrase), "phrase");
  EXPECT_EQ(image.rules.at("/jpeg*"), "@operators");
}

TEST_F(BackupWork, TellsWhatARestorationWouldChange) {
  const std::string file = Save().file;
  StoreImage now = store_;
  now.accounts.erase("bob");
  now.accounts["admin"] = Account("another", 1);
  now.accounts["carl"] = Account("carlpass", 4);
  now.passphrases["_2"] = now.passphrases["_1"];
  now.passphrases["_1"].alias = "dns";
  now.rules["/jpeg*"] = "true";
  const StagedRestore staged = Stage(file, now, cipher_);
  using Names = std::vector<std::string>;
  EXPECT_EQ(staged.accounts.added, Names{"bob"});
  EXPECT_EQ(staged.accounts.changed, Names{"admin"});
  EXPECT_EQ(staged.accounts.removed, Names{"carl"});
  EXPECT_EQ(staged.passphrases.added, Names{});
  EXPECT_EQ(staged.passphrases.changed, Names{"_1"});
  EXPECT_EQ(staged.passphrases.removed, Names{"_2"});
  EXPECT_EQ(staged.rules.changed, Names{"/jpeg*"});
}

// The same password is another text after each encryption, and no change.
TEST_F(BackupWork, FindsNoChangeWhereOnlyTheEncryptionDiffers) {
  const std::string file = Save().file;
  StoreImage now = store_;
  now.accounts["admin"] = Account("adminpass", 1);
  const StagedRestore staged = Stage(file, now, cipher_);
  for (const StagedRestore::Difference* difference :
       {&staged.accounts, &staged.passphrases, &staged.rules}) {
    EXPECT_TRUE(difference->added.empty() && difference->changed.empty() &&
                difference->removed.empty());
  }
}

TEST_F(BackupWork, LeavesOutAndCountsWhatTheKeyCannotRead) {
  store_.accounts["bob"].password = "bm90IGVuY3J5cHRlZA==";
  store_.histories["bob"].push_back("nor this");
  store_.passphrases["_3"].phrase = "nor that";
  const SavedBackup saved = Save();
  EXPECT_EQ(saved.unreadable, 3u);
  const StagedRestore staged = Stage(saved.file, store_, cipher_);
  EXPECT_EQ(staged.image.accounts.at("bob").password, "");
  EXPECT_EQ(staged.image.histories.at("bob").size(), 1u);
  EXPECT_FALSE(staged.image.passphrases.contains("_3"));
}

TEST_F(BackupWork, OffersNoDeviceWithoutAnAdministrator) {
  store_.accounts["admin"].group = Group{2};
  EXPECT_EQ(Stage(Save().file, store_, cipher_).code, contract::kLastAdministrator);
  store_.accounts["admin"].group = Group{1};
  store_.accounts["admin"].password.clear();
  EXPECT_EQ(Stage(Save().file, store_, cipher_).code, contract::kLastAdministrator);
}

TEST_F(BackupWork, NeverMakesEveryoneAnAdministrator) {
  store_.accounts["nobody"].group = Group{1};
  const StagedRestore staged = Stage(Save().file, store_, cipher_);
  EXPECT_EQ(staged.image.accounts.at("nobody").group, Group{16});
}

TEST_F(BackupWork, RefusesAnotherPassphraseAndContentOfNoStore) {
  const std::string file = Save().file;
  EXPECT_EQ(
      StageRestore(file, SecretText(std::string("another passphrase")), store_, cipher_, stop_)
          .code,
      contract::kBackupLocked);
  EXPECT_EQ(Stage(BackupFile::Seal("nonsense", kBackupPassphrase), store_, cipher_).code,
            contract::kBackupDamaged);
}

TEST_F(BackupWork, KeepsTheRulesOfPathsThatABackupDoesNotHave) {
  const std::string file = Save().file;
  StoreImage other = store_;
  other.rules = {{"/rtsp/*", "@viewers"}};
  const StagedRestore staged = Stage(file, other, cipher_);
  EXPECT_EQ(staged.image.rules, other.rules);
  EXPECT_EQ(staged.unknown_rules, 1u);
}

TEST_F(BackupWork, TooLargeForAFileIsNotSaved) {
  store_.passphrases["_1"].alias = std::string(BackupFile::kMaximumBytes, 'x');
  EXPECT_EQ(Save().code, contract::kBackupTooLarge);
}

TEST_F(BackupWork, EndsEarlyWhenItIsToldTo) {
  stop_ = true;
  EXPECT_EQ(Save().file, "");
}

}  // namespace
}  // namespace vigila::server

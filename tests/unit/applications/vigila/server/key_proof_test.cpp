#include "vigila/server/key_proof.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "decryptions.h"
#include "support/library_without_rsa.h"
#include "support/text_thrown_by.h"
#include "support/user_store_fixture.h"

namespace vigila::server {
namespace {

class KeyProof : public support::UserStoreTest {
 protected:
  // What the proof of the shared key throws.
  std::string Error() {
    AtRestCipher cipher(support::AtRestKeyFixture::Path());
    return support::TextThrownBy([&] { OpenAndProveKey(cipher); });
  }
  // Something that another key made.
  std::string Foreign() const {
    const std::string path = settings_.Dir().File("foreign.key");
    AtRestKey::Create(path, AtRestKey::kMinimumBits);
    AtRestCipher cipher(path);
    cipher.Open(true);
    return *cipher.Encrypt("secret");
  }
  void PutPassword(const std::string& name, const std::string& stored) {
    MyUser user;
    user.password = stored;
    user.group = ToGroup(kViewer);
    Put(name, user);
  }

  const std::string begin_ = "key file " + support::AtRestKeyFixture::Path() + ": ";
  const std::string of_another_store_ = begin_ + "not the key of the values in the settings";
  const std::string of_another_value_ =
      begin_ + "not the key of the only value in the settings, unless that is damaged";
};

TEST_F(KeyProof, NeedsNoValues) {
  EXPECT_EQ("nothing thrown", Error());
}

TEST_F(KeyProof, RefusesADamagedKeyOverAnEmptyStoreToo) {
  const std::string path = settings_.Dir().File("damaged.key");
  std::filesystem::copy_file(support::AtRestKeyFixture::Path(), path);
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(100);
  file.put('x').put('y').flush();
  AtRestCipher damaged(path);
  EXPECT_EQ("key file " + path + ": damaged, its numbers make no key",
            support::TextThrownBy([&] { OpenAndProveKey(damaged); }));
}

TEST_F(KeyProof, LeavesTheKeyOpen) {
  Put("alice", "secret", kViewer);
  AtRestCipher cipher(support::AtRestKeyFixture::Path());
  OpenAndProveKey(cipher);
  EXPECT_EQ("secret", cipher.Decrypt(Stored("alice").password)->View());
}

TEST_F(KeyProof, IsDoneElsewhere) {
  Put("alice", "secret", kViewer);
  const int before = DecryptionCount();
  EXPECT_EQ("nothing thrown", Error());
  EXPECT_EQ(before, DecryptionCount());
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno) << "no child is left";
}

TEST_F(KeyProof, RefusesTheKeyOfAnotherStore) {
  PutPassword("alice", Foreign());
  PutPassword("bob", Foreign());
  EXPECT_EQ(of_another_store_, Error());
}

TEST_F(KeyProof, SaysThatTheOnlyValueMayBeDamaged) {
  PutPassword("alice", Encrypt("secret").replace(0, 4, "AAAA"));
  EXPECT_EQ(of_another_value_, Error());
  PutPassword("bob", Encrypt("secret"));
  EXPECT_EQ("nothing thrown", Error());
}

TEST_F(KeyProof, IsDoneWhereNoOneLearnsHowAProcessEnded) {
  const auto previous = std::signal(SIGCHLD, SIG_IGN);
  Put("alice", "secret", kViewer);
  EXPECT_EQ("nothing thrown", Error());
  {
    const FailingDecryptions failing(FailingDecryptions::kWithAnAbort);
    EXPECT_EQ(begin_ + "its proof ended without a verdict", Error());
  }
  PutPassword("alice", Foreign());
  EXPECT_EQ(of_another_value_, Error());
  std::signal(SIGCHLD, previous);
}

TEST_F(KeyProof, RefusesTheKeyOfAnotherStoreForAnyKindOfValue) {
  const std::string foreign = Foreign();
  settings_.PutJson("phrase._1", "{\"Phrase\":\"" + foreign + "\",\"Alias\":\"YQ==\"}");
  EXPECT_EQ(of_another_value_, Error());
  settings_.Delete("phrase._1");
  settings_.PutArray("oldPasswords.alice", {foreign});
  EXPECT_EQ(of_another_value_, Error());
}

TEST_F(KeyProof, PassesOverDamagedValues) {
  PutPassword("alice", "c2VjcmV0");
  PutPassword("bob", Foreign());
  settings_.PutArray("oldPasswords.alice", {"damaged", Encrypt("old password")});
  EXPECT_EQ("nothing thrown", Error());
}

TEST_F(KeyProof, AsksNothingOfValuesThatNoKeyMade) {
  PutPassword("alice", "0123456789abcdef0123456789abcdef");
  PutPassword("bob", "c2VjcmV0");
  EXPECT_EQ("nothing thrown", Error());
}

TEST_F(KeyProof, RefusesAKeyThatTheLibraryDoesNotTakeAndSaysWhy) {
  Put("alice", "secret", kViewer);
  const support::LibraryWithoutRsa library;
  const std::string error = Error();
  EXPECT_TRUE(error.starts_with(begin_ + "the key cannot be built: error:")) << error;
}

TEST_F(KeyProof, RefusesALibraryThatEndsItsProcess) {
  Put("alice", "secret", kViewer);
  const FailingDecryptions failing(FailingDecryptions::kWithAnAbort);
  EXPECT_EQ(begin_ + "its proof ended by signal " + std::to_string(SIGABRT), Error());
}

TEST_F(KeyProof, NeedsAProcessAndAPipe) {
  Put("alice", "secret", kViewer);
  const int free = dup(0);
  close(free);
  rlimit previous = {};
  getrlimit(RLIMIT_NOFILE, &previous);
  const rlimit one_more = {static_cast<rlim_t>(free) + 1, previous.rlim_max};
  setrlimit(RLIMIT_NOFILE, &one_more);
  const std::string error = Error();
  setrlimit(RLIMIT_NOFILE, &previous);
  EXPECT_EQ(begin_ + "cannot be proven: Too many open files", error);
}

TEST_F(KeyProof, NeedsTheKeyFileOverStoredValues) {
  settings_.PutJson("user.alice",
                    "{\"Password\":\"" + Foreign() + "\"");  // in a malformed account too
  AtRestCipher lost(settings_.Dir().File("lost.key"));
  EXPECT_EQ(
      "key file " + lost.KeyFile() + ": missing, and the settings hold values encrypted with it",
      support::TextThrownBy([&] { OpenAndProveKey(lost); }));
  EXPECT_FALSE(std::filesystem::exists(lost.KeyFile()));
}

TEST_F(KeyProof, PassesOverAMalformedAccount) {
  settings_.PutJson("user.alice", "{\"Password\":\"" + Foreign() + "\"");
  EXPECT_EQ("nothing thrown", Error());
}

TEST_F(KeyProof, NeedsSettingsThatCanBeRead) {
  settings_.Close();
  EXPECT_NE("nothing thrown", Error());
  settings_.Open();
}

}  // namespace
}  // namespace vigila::server

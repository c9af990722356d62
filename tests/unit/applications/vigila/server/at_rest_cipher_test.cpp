#include "vigila/server/at_rest_cipher.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "krand/base64/base64.h"
#include "support/at_rest_key_fixture.h"
#include "support/capturing_log.h"
#include "support/library_without_rsa.h"
#include "support/platform_fixture.h"
#include "support/temp_dir.h"
#include "support/text_thrown_by.h"
#include "tevra/osa/exception.h"

namespace vigila::server {
namespace {

using support::TextThrownBy;
using tevra::core::SecretText;

constexpr size_t kKeyBytes = AtRestKey::kMinimumBits / 8;
// What OAEP with SHA-256 leaves of a block.
constexpr size_t kClearBlock = kKeyBytes - 2 * 32 - 2;

class AtRestCipherTest : public testing::Test {
 protected:
  AtRestCipherTest() {
    unsetenv("CREDENTIALS_DIRECTORY");
    cipher_ = Opened(support::AtRestKeyFixture::Path());
  }
  ~AtRestCipherTest() override { unsetenv("CREDENTIALS_DIRECTORY"); }

  // A cipher that has not used its key yet.
  static std::unique_ptr<AtRestCipher> Opened(const std::string& path, bool secrets = true) {
    auto cipher = std::make_unique<AtRestCipher>(path);
    cipher->Open(secrets);
    return cipher;
  }
  // A copy of the key under another name.
  std::string CopyKey(const std::string& name) const {
    std::filesystem::copy_file(support::AtRestKeyFixture::Path(), dir_.File(name));
    return dir_.File(name);
  }
  std::string RoundTrip(std::string_view clear) { return RoundTrip(*cipher_, clear); }
  static std::string RoundTrip(AtRestCipher& cipher, std::string_view clear) {
    const std::optional<std::string> stored = cipher.Encrypt(clear);
    if (!stored.has_value()) return "not encrypted";
    const std::optional<SecretText> again = cipher.Decrypt(*stored);
    return again.has_value() ? std::string(again->View()) : "not decrypted";
  }

  support::PlatformFixture platform_;
  support::TempDir dir_;
  support::CapturingLog log_;
  std::unique_ptr<AtRestCipher> cipher_;
};

TEST_F(AtRestCipherTest, GivesBackWhatItEncrypted) {
  EXPECT_EQ("secret", RoundTrip("secret"));
}

TEST_F(AtRestCipherTest, KeepsZeroBytesAndBytesThatAreNoText) {
  const std::string bytes("\0a\xff\xfe\0", 5);
  EXPECT_EQ(bytes, RoundTrip(bytes));
}

TEST_F(AtRestCipherTest, KeepsTheEmptyText) {
  EXPECT_EQ("", RoundTrip(""));
}

TEST_F(AtRestCipherTest, KeepsTextsOfOneBlockAndOfMore) {
  for (const size_t length : {kClearBlock - 1, kClearBlock, kClearBlock + 1, 2 * kClearBlock,
                              2 * kClearBlock + 1, size_t{5000}}) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 26);
    EXPECT_EQ(text, RoundTrip(text)) << length;
  }
}

TEST_F(AtRestCipherTest, TakesOneBlockForTextsThatFitIntoOne) {
  const auto blocks = [this](size_t length) {
    return krand::lib::Base64::Decode(*cipher_->Encrypt(std::string(length, 'x'))).size() /
           kKeyBytes;
  };
  EXPECT_EQ(1u, blocks(0));
  EXPECT_EQ(1u, blocks(kClearBlock));
  EXPECT_EQ(2u, blocks(kClearBlock + 1));
}

TEST_F(AtRestCipherTest, WritesOneLineOfBase64) {
  const std::string stored = *cipher_->Encrypt(std::string(1000, 'x'));
  EXPECT_EQ(std::string::npos, stored.find('\n'));
  EXPECT_EQ(stored, krand::lib::Base64::Encode(krand::lib::Base64::Decode(stored)));
}

TEST_F(AtRestCipherTest, EncryptsTheSameTextDifferentlyEachTime) {
  EXPECT_NE(*cipher_->Encrypt("secret"), *cipher_->Encrypt("secret"));
}

TEST_F(AtRestCipherTest, DecryptsNothingThatIsNotItsOwn) {
  const std::string stored = *cipher_->Encrypt("secret");
  EXPECT_FALSE(cipher_->Decrypt("").has_value());
  EXPECT_FALSE(cipher_->Decrypt("not base64!").has_value());
  EXPECT_FALSE(cipher_->Decrypt(std::string(32, 'a')).has_value());
  EXPECT_FALSE(cipher_->Decrypt(stored + "\n").has_value());
  EXPECT_FALSE(cipher_->Decrypt(stored.substr(0, stored.size() - 4)).has_value());
  std::string bytes = krand::lib::Base64::Decode(stored);
  bytes[100] = static_cast<char>(bytes[100] ^ 1);
  EXPECT_FALSE(cipher_->Decrypt(krand::lib::Base64::Encode(bytes)).has_value());
  EXPECT_FALSE(
      cipher_->Decrypt(krand::lib::Base64::Encode(std::string(kKeyBytes, '\xff'))).has_value());
  EXPECT_EQ("secret", cipher_->Decrypt(stored)->View());
}

TEST_F(AtRestCipherTest, DecryptsNoneOfAChainWithOneDamagedBlock) {
  std::string bytes = krand::lib::Base64::Decode(*cipher_->Encrypt(std::string(500, 'x')));
  bytes.back() = static_cast<char>(bytes.back() ^ 1);
  EXPECT_FALSE(cipher_->Decrypt(krand::lib::Base64::Encode(bytes)).has_value());
}

TEST_F(AtRestCipherTest, DoesNothingBeforeItsKeyIsOpen) {
  const std::string stored = *cipher_->Encrypt("secret");
  AtRestCipher closed(support::AtRestKeyFixture::Path());
  EXPECT_FALSE(closed.Encrypt("secret").has_value());
  EXPECT_FALSE(closed.Decrypt(stored).has_value());
  EXPECT_FALSE(closed.IsKeyOf({stored}));
  closed.BurnDecryption();
}

TEST_F(AtRestCipherTest, ReadsWhatAnEarlierProcessEncrypted) {
  const std::string stored = *cipher_->Encrypt("secret");
  EXPECT_EQ("secret", Opened(cipher_->KeyFile())->Decrypt(stored)->View());
}

TEST_F(AtRestCipherTest, KnowsItsOwnAmongOtherValues) {
  const std::string stored = *cipher_->Encrypt("secret");
  const std::unique_ptr<AtRestCipher> other = Opened(dir_.File("other.key"), false);
  const std::string foreign = *other->Encrypt("secret");
  EXPECT_TRUE(cipher_->IsKeyOf({stored}));
  EXPECT_TRUE(cipher_->IsKeyOf({"damaged", foreign, stored}));
  EXPECT_FALSE(cipher_->IsKeyOf({"damaged", foreign}));
  EXPECT_FALSE(cipher_->IsKeyOf({}));
}

TEST_F(AtRestCipherTest, SaysWhyTheLibraryDoesNotTakeTheKey) {
  const std::string stored = *cipher_->Encrypt("secret");
  const std::unique_ptr<AtRestCipher> unused = Opened(cipher_->KeyFile());
  const support::LibraryWithoutRsa library;
  const std::string text = TextThrownBy([&] { unused->IsKeyOf({stored}); });
  EXPECT_TRUE(text.starts_with("key file " + cipher_->KeyFile() + ": the key cannot be built: "))
      << text;
}

TEST_F(AtRestCipherTest, OpensAKeyWithoutUsingIt) {
  const support::LibraryWithoutRsa library;
  EXPECT_NO_THROW(Opened(support::AtRestKeyFixture::Path()));
}

TEST_F(AtRestCipherTest, UsesTheKeyThatWasOpenedWhateverBecomesOfItsFile) {
  const std::string stored = *cipher_->Encrypt("secret");
  const std::string path = CopyKey("some.key");
  const std::unique_ptr<AtRestCipher> of_gone = Opened(path), of_damaged = Opened(path);
  std::ofstream(path) << "damaged";
  EXPECT_EQ("secret", of_damaged->Decrypt(stored)->View());
  ASSERT_EQ(0, unlink(path.c_str()));
  EXPECT_EQ("secret", of_gone->Decrypt(stored)->View());
}

TEST_F(AtRestCipherTest, LogsEveryUseOfAKeyThatTheLibraryDoesNotTake) {
  const std::string stored = *cipher_->Encrypt("secret");
  const std::unique_ptr<AtRestCipher> unused = Opened(cipher_->KeyFile());
  const auto lines = [this] {
    const auto texts = log_.TextsOf("AtRestCipher", support::CapturingLog::Level::kError);
    return std::count_if(texts.begin(), texts.end(), [this](const std::string& text) {
      return text.starts_with("key file " + cipher_->KeyFile() + ": the key cannot be built: ");
    });
  };
  {
    const support::LibraryWithoutRsa library;
    EXPECT_FALSE(unused->Encrypt("secret").has_value());
    EXPECT_EQ(1, lines());
    EXPECT_FALSE(unused->Decrypt(stored).has_value());
    EXPECT_EQ(2, lines());
    unused->BurnDecryption();
    EXPECT_EQ(3, lines());
  }
  EXPECT_EQ("secret", unused->Decrypt(stored)->View()) << "it must not have been given up";
}

TEST_F(AtRestCipherTest, IsFirstUsedByThreadsAtOnce) {
  const std::string stored = *cipher_->Encrypt("secret");
  const std::unique_ptr<AtRestCipher> unused = Opened(cipher_->KeyFile());
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] { EXPECT_EQ("secret", unused->Decrypt(stored)->View()); });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(AtRestCipherTest, ServesThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i] {
      for (int n = 0; n < 5; ++n) {
        const std::string text = std::to_string(i * 100 + n);
        EXPECT_EQ(text, RoundTrip(text));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(AtRestCipherTest, MakesAMissingKeyOnceTheStoreHoldsNothingForAnother) {
  const std::string path = dir_.File("new.key");
  const std::string stored = *Opened(path, false)->Encrypt("secret");
  EXPECT_TRUE(log_.Contains("made a new key in " + path));
  EXPECT_EQ(kKeyBytes * 3 / 2 * 8 + 32, std::filesystem::file_size(path)) << "3072 bits";
  EXPECT_EQ("secret", Opened(path, true)->Decrypt(stored)->View());
  EXPECT_EQ("secret", Opened(path, false)->Decrypt(stored)->View());
}

TEST_F(AtRestCipherTest, MakesNoNewKeyOverOldValues) {
  const std::string path = dir_.File("lost.key");
  EXPECT_EQ("key file " + path + ": missing, and the settings hold values encrypted with it",
            TextThrownBy([&] { Opened(path); }));
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(AtRestCipherTest, NamesTheFileThatCannotBeMade) {
  const std::string path = dir_.File("no/such/directory/the.key");
  EXPECT_EQ("key file " + path + ": cannot be made: No such file or directory",
            TextThrownBy([&] { Opened(path, false); }));
}

TEST_F(AtRestCipherTest, NeverMendsADamagedKeyWithANewOne) {
  const std::string path = dir_.Write("some.key", "damaged");
  ASSERT_EQ(0, chmod(path.c_str(), 0600));
  for (const bool store_holds_secrets : {true, false}) {
    EXPECT_NE(std::string::npos,
              TextThrownBy([&] { Opened(path, store_holds_secrets); }).find(path + ": damaged"));
    EXPECT_EQ("damaged", dir_.Read("some.key"));
  }
}

TEST_F(AtRestCipherTest, LivesBesideTheSettingsByDefault) {
  EXPECT_EQ(platform_.SettingsDir() + "/vigila.key", AtRestCipher("").KeyFile());
}

TEST_F(AtRestCipherTest, PrefersTheServiceManagersCredential) {
  const std::string path = CopyKey("vigila.key");
  // An access list for the service's user shows as a group bit.
  ASSERT_EQ(0, chmod(path.c_str(), 0440));
  setenv("CREDENTIALS_DIRECTORY", dir_.Path().c_str(), 1);
  const std::unique_ptr<AtRestCipher> cipher = Opened(dir_.File("missing.key"));
  EXPECT_EQ(path, cipher->KeyFile());
  EXPECT_EQ("secret", RoundTrip(*cipher, "secret"));
}

TEST_F(AtRestCipherTest, RefusesACredentialThatEverybodyMayRead) {
  const std::string path = CopyKey("vigila.key");
  ASSERT_EQ(0, chmod(path.c_str(), 0444));
  setenv("CREDENTIALS_DIRECTORY", dir_.Path().c_str(), 1);
  EXPECT_EQ("key file " + path + ": open to others (mode 0444), must be 0600",
            TextThrownBy([] { Opened(""); }));
}

TEST_F(AtRestCipherTest, IgnoresACredentialsDirectoryWithoutAKey) {
  setenv("CREDENTIALS_DIRECTORY", dir_.Path().c_str(), 1);
  EXPECT_EQ("/some.key", AtRestCipher("/some.key").KeyFile());
}

TEST_F(AtRestCipherTest, NeverLogsASecret) {
  RoundTrip("very secret text");
  cipher_->Decrypt("very secret text");
  EXPECT_FALSE(log_.Contains("very secret text"));
}

}  // namespace
}  // namespace vigila::server

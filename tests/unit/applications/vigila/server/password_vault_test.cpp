#include "vigila/server/password_vault.h"

#include <gtest/gtest.h>

#include "decryptions.h"
#include "support/at_rest_key_fixture.h"
#include "support/capturing_log.h"
#include "support/library_without_rsa.h"
#include "support/text_thrown_by.h"

namespace vigila::server {
namespace {

class PasswordVaultTest : public testing::Test {
 protected:
  PasswordVaultTest() { cipher_.Open(true); }

  bool Decrypts(const std::string& stored) const { return vault_.Decrypt(stored).has_value(); }

  support::CapturingLog log_;
  AtRestCipher cipher_{support::AtRestKeyFixture::Path()};
  PasswordVault vault_{&cipher_};
};

TEST_F(PasswordVaultTest, GivesBackTheClearText) {
  const std::string stored = vault_.Encrypt("secret");
  EXPECT_EQ(std::string::npos, stored.find("secret"));
  EXPECT_EQ("secret", vault_.Decrypt(stored)->View());
}

TEST_F(PasswordVaultTest, HasNoClearTextForWhatIsNoPassword) {
  EXPECT_FALSE(Decrypts(""));
  EXPECT_FALSE(Decrypts("damaged"));
  EXPECT_FALSE(Decrypts(vault_.Encrypt(""))) << "the empty password";
}

TEST_F(PasswordVaultTest, ComparesByteForByteAndWithLengths) {
  const std::string stored = vault_.Encrypt(std::string("sec\0ret", 7));
  EXPECT_TRUE(vault_.Matches(stored, std::string("sec\0ret", 7)));
  for (const std::string& other : {std::string("sec"), std::string("sec\0reT", 7), std::string()}) {
    EXPECT_FALSE(vault_.Matches(stored, other));
  }
}

TEST_F(PasswordVaultTest, MatchesNothingWithoutAPassword) {
  for (const std::string& stored : {std::string(), std::string("c2VjcmV0"), vault_.Encrypt("")}) {
    for (const char* clear : {"", "secret", "c2VjcmV0"}) {
      EXPECT_FALSE(vault_.Matches(stored, clear)) << stored << " " << clear;
    }
  }
}

TEST_F(PasswordVaultTest, DecryptsOnceWhetherThereIsAPasswordOrNot) {
  const std::string stored = vault_.Encrypt("secret");
  int before = DecryptionCount();
  vault_.Matches(stored, "wrong");
  EXPECT_EQ(1, DecryptionCount() - before);
  before = DecryptionCount();
  vault_.Matches("", "wrong");
  EXPECT_EQ(1, DecryptionCount() - before);
  for (const char* damaged : {"c2VjcmV0", "not base64!", "0123456789abcdef0123456789abcdef"}) {
    before = DecryptionCount();
    vault_.Matches(damaged, "wrong");
    EXPECT_EQ(1, DecryptionCount() - before) << damaged;
  }
  before = DecryptionCount();
  vault_.BurnDecryption();
  EXPECT_EQ(1, DecryptionCount() - before);
}

TEST_F(PasswordVaultTest, HasNoClearTextThatTheLibraryCannotTell) {
  const std::string stored = vault_.Encrypt("secret");
  AtRestCipher unused(cipher_.KeyFile());
  unused.Open(true);
  const PasswordVault vault(&unused);
  const support::LibraryWithoutRsa library;
  EXPECT_FALSE(vault.Matches(stored, "secret"));
  EXPECT_EQ("a secret could not be encrypted",
            support::TextThrownBy([&] { vault.Encrypt("secret"); }));
}

TEST_F(PasswordVaultTest, DoesNothingWithoutACipher) {
  const PasswordVault vault(nullptr);
  EXPECT_FALSE(vault.Decrypt(vault_.Encrypt("secret")).has_value());
  EXPECT_FALSE(vault.Matches("", ""));
  EXPECT_EQ("a secret could not be encrypted",
            support::TextThrownBy([&] { vault.Encrypt("secret"); }));
}

}  // namespace
}  // namespace vigila::server

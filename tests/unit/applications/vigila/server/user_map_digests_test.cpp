#include <gtest/gtest.h>
#include <openssl/sha.h>

#include "decryptions.h"
#include "krand/base64/base64.h"
#include "support/library_without_rsa.h"
#include "support/memory/freed_memory_watch.h"
#include "support/user_store_fixture.h"

namespace vigila::server {
namespace {

constexpr char kCreated[] = "2026-11-21T02:01:00Z";
constexpr char kNonce[] = "0123456789abcdef";

std::string Digest(const std::string& nonce, const std::string& created,
                   const std::string& password) {
  const std::string text = nonce + created + password;
  std::string digest(SHA_DIGEST_LENGTH, '\0');
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(),
       reinterpret_cast<unsigned char*>(digest.data()));
  return krand::lib::Base64::Encode(digest);
}

class UserMapDigests : public support::UserStoreTest {
 protected:
  UserMapDigests() { Put("alice", "secret", kViewer); }

  int GetHA1(const std::string& name) { return Store().GetHA1(name, ha1_); }
  // A UsernameToken made with this password.
  int Token(const std::string& name, const std::string& password) {
    return Wsse(name, Digest(kNonce, kCreated, password), krand::lib::Base64::Encode(kNonce));
  }
  int Wsse(const std::string& name, const std::string& digest, const std::string& nonce) {
    return Store().ValidateWsseDigest(name, digest, nonce, kCreated, ha1_);
  }

  const std::string secret_ha1_ = User::MD5sum("alice:Varno:secret");
  std::string ha1_ = "old";
};

TEST_F(UserMapDigests, FormsTheHA1OfNameRealmAndPassword) {
  EXPECT_EQ(0, GetHA1("alice"));
  EXPECT_EQ(secret_ha1_, ha1_);
  EXPECT_EQ("3a503be02c866055123c57328926435e", User::MD5sum("alice:Varno:secret"));
}

TEST_F(UserMapDigests, DecryptsForTheFirstHA1Only) {
  const int before = DecryptionCount();
  EXPECT_EQ(0, GetHA1("alice"));
  EXPECT_EQ(before + 1, DecryptionCount());
  ha1_.clear();
  EXPECT_EQ(0, GetHA1("alice"));
  EXPECT_EQ(secret_ha1_, ha1_);
  EXPECT_EQ(before + 1, DecryptionCount());
}

TEST_F(UserMapDigests, NeverStoresAnHA1) {
  GetHA1("alice");
  Merge({{"alice", "", kAdmin}});
  EXPECT_EQ(std::string::npos, StoredText("alice").find(secret_ha1_));
  Restart();
  const support::LibraryWithoutRsa library;
  EXPECT_EQ(5, GetHA1("alice"));  // rebuilt after a restart, which takes the key
}

TEST_F(UserMapDigests, KeepsTheHA1OverAGroupChangeAndDropsItWithThePassword) {
  GetHA1("alice");
  ASSERT_EQ(-1, Merge({{"alice", "", 4}}));
  EXPECT_EQ(0, GetHA1("alice"));
  EXPECT_EQ(secret_ha1_, ha1_);
  ASSERT_EQ(-1, Merge({{"alice", "another", 4}}));
  EXPECT_EQ(0, GetHA1("alice"));
  EXPECT_EQ(User::MD5sum("alice:Varno:another"), ha1_);
}

TEST_F(UserMapDigests, OverwritesThePasswordBeforeItsMemoryIsGivenBack) {
  constexpr char kPassword[] = "correct horse battery staple";
  Put("bob", kPassword, kViewer);
  const std::string digest = Digest(kNonce, kCreated, kPassword);
  const std::string nonce = krand::lib::Base64::Encode(kNonce);
  const support::FreedMemoryWatch watch(kPassword);
  EXPECT_EQ(0, GetHA1("bob"));
  EXPECT_EQ(0, Wsse("bob", digest, nonce));
  EXPECT_EQ(18, Wsse("bob", digest, "QUJD"));
  EXPECT_EQ(0, watch.Found());
}

TEST_F(UserMapDigests, HasNoHA1ForTheUnknown) {
  EXPECT_EQ(10, GetHA1("nosuch"));
  EXPECT_EQ("old", ha1_);
}

TEST_F(UserMapDigests, HasNoHA1WithoutAUsablePassword) {
  settings_.PutJson("user.none", "{\"Groups\":8}");
  settings_.PutJson("user.damaged", "{\"Groups\":8,\"Password\":\"c2VjcmV0\"}");
  MyUser empty;
  empty.group = ToGroup(kViewer);
  empty.password = Encrypt("");
  Put("empty", empty);
  for (const char* name : {"nobody", "none", "damaged", "empty"}) {
    EXPECT_EQ(5, GetHA1(name)) << name;
    EXPECT_EQ(5, GetHA1(name)) << name;  // nothing was cached
    EXPECT_EQ("old", ha1_) << name;
  }
}

TEST_F(UserMapDigests, TakesAStoredTextOfThirtyTwoCharactersForADigest) {
  settings_.PutJson("user.digest", "{\"Groups\":8,\"Password\":\"" + std::string(32, 'a') + "\"}");
  EXPECT_EQ(5, GetHA1("digest"));
  EXPECT_EQ("old", ha1_);
  EXPECT_EQ(18, Logon("digest", std::string(32, 'a')));
}

TEST_F(UserMapDigests, KeepsZeroBytesInTheHA1) {
  const std::string zero("se\0cret", 7);
  Put("zero", zero, kViewer);
  EXPECT_EQ(0, GetHA1("zero"));
  EXPECT_EQ(User::MD5sum("zero:Varno:" + zero), ha1_);
}

TEST_F(UserMapDigests, RefusesTheHA1OfTheLockedAndTheExpired) {
  MyUser locked = Account("secret", kViewer);
  locked.disabled_time = kStart;
  Put("locked", locked);
  Put("expired", "secret", kViewer, 1);
  MyUser both = locked;
  both.password_time = 1;
  Put("both", both);
  RestartWithPolicy();
  EXPECT_EQ(16, GetHA1("locked"));
  EXPECT_EQ(17, GetHA1("expired"));
  EXPECT_EQ(16, GetHA1("both"));
  EXPECT_EQ("old", ha1_);
  Restart();
  EXPECT_EQ(0, GetHA1("both"));
}

TEST_F(UserMapDigests, CountsAPasswordThatIsNoneAsExpiredUnderThePolicy) {
  settings_.PutJson("user.none", "{\"Groups\":8}");
  settings_.PutJson("user.damaged", "{\"Groups\":8,\"Password\":\"c2VjcmV0\"}");
  RestartWithPolicy();
  for (const char* name : {"none", "damaged"}) {
    EXPECT_EQ(17, GetHA1(name)) << name;
    EXPECT_EQ(18, Token(name, "")) << name;  // told only to a matching token, and none matches
  }
}

TEST_F(UserMapDigests, CountsAndResetsNothingForAnHA1) {
  MyUser user = Account("secret", kViewer);
  user.failed_attempts = 2;
  user.bad_password_time = kStart;
  Put("alice", user);
  RestartWithPolicy();
  EXPECT_EQ(0, GetHA1("alice"));
  EXPECT_EQ(user.ToJson(), StoredText("alice"));
}

TEST_F(UserMapDigests, AcceptsATokenAndGivesTheHA1) {
  EXPECT_EQ(0, Token("alice", "secret"));
  EXPECT_EQ(secret_ha1_, ha1_);
}

TEST_F(UserMapDigests, AcceptsAPublishedToken) {
  // The example of the UsernameToken profile for web services in video devices.
  Put("user", "userpassword", kViewer);
  EXPECT_EQ(0,
            Store().ValidateWsseDigest("user", "tuOSpGlFlIXsozq4HFNeeGeFLEI=",
                                       "LKqI6G/AikKCQrN0zqZFlg==", "2010-09-16T07:50:45Z", ha1_));
}

TEST_F(UserMapDigests, RefusesAPublishedDigestThatIsTooLong) {
  Put("NNK", "any password", kViewer);
  EXPECT_EQ(1,
            Store().ValidateWsseDigest("NNK", "weYI3nXd8LjMNVksCKFV8t3rgHh3Rw==",
                                       "WScqanjCEAC4mQoBE07sAQ==", "2003-07-16T01:24:32Z", ha1_));
}

TEST_F(UserMapDigests, RefusesADigestOverTheNonceAsItIsSpelled) {
  Put("bob", "taadtaadpstcsm", kViewer);
  EXPECT_EQ(18, Store().ValidateWsseDigest(
                    "bob", "quR/EWLAV4xLf9Zqyw4pDmfV9OY=", "d36e316282959a9ed4c89851497a717f",
                    "2003-12-15T14:43:07Z", ha1_));
}

TEST_F(UserMapDigests, RefusesATokenOfAnotherPassword) {
  EXPECT_EQ(18, Token("alice", "Secret"));
  EXPECT_EQ("", ha1_);
}

TEST_F(UserMapDigests, RefusesATokenOfAnotherTime) {
  EXPECT_EQ(18,
            Store().ValidateWsseDigest("alice", Digest(kNonce, "2026-11-21T02:01:01Z", "secret"),
                                       krand::lib::Base64::Encode(kNonce), kCreated, ha1_));
}

TEST_F(UserMapDigests, TakesTheCreationTimeAsReceived) {
  const std::string created(" any\0text ", 10);
  EXPECT_EQ(0, Store().ValidateWsseDigest("alice", Digest(kNonce, created, "secret"),
                                          krand::lib::Base64::Encode(kNonce), created, ha1_));
}

TEST_F(UserMapDigests, KeepsZeroBytesInTheToken) {
  const std::string zero("\0se\0cret", 8), nonce("\0\xff\0", 3);
  Put("zero", zero, kViewer);
  EXPECT_EQ(0, Wsse("zero", Digest(nonce, kCreated, zero), krand::lib::Base64::Encode(nonce)));
  EXPECT_EQ(18, Wsse("zero", Digest(nonce, kCreated, ""), krand::lib::Base64::Encode(nonce)));
}

TEST_F(UserMapDigests, RefusesATokenOfTheUnknownAndOfNobody) {
  EXPECT_EQ(10, Token("nosuch", "secret"));
  EXPECT_EQ(10, Wsse("nosuch", "", ""));
  EXPECT_EQ(10, Token("nobody", ""));
  EXPECT_EQ("old", ha1_);
}

TEST_F(UserMapDigests, AsksForADigestOfTwentyBytes) {
  const std::string nonce = krand::lib::Base64::Encode(kNonce);
  for (const size_t size : {size_t{0}, size_t{16}, size_t{19}, size_t{21}, size_t{32}}) {
    EXPECT_EQ(1, Wsse("alice", krand::lib::Base64::Encode(std::string(size, 'x')), nonce)) << size;
  }
  EXPECT_EQ(1, Wsse("alice", "not base64", nonce));
  EXPECT_EQ(1, Wsse("alice", Digest(kNonce, kCreated, "secret") + "\n", nonce));
}

TEST_F(UserMapDigests, AsksForANonce) {
  const std::string digest = Digest("", kCreated, "secret");
  EXPECT_EQ(2, Wsse("alice", digest, ""));
  EXPECT_EQ(2, Wsse("alice", digest, "not base64"));
  EXPECT_EQ(2, Wsse("alice", digest, "QUJD\n"));
}

TEST_F(UserMapDigests, TellsAMalformedDigestBeforeAMalformedNonce) {
  EXPECT_EQ(1, Wsse("alice", "", ""));
}

TEST_F(UserMapDigests, MatchesNoTokenWithoutAUsablePassword) {
  settings_.PutJson("user.none", "{\"Groups\":8}");
  settings_.PutJson("user.damaged", "{\"Groups\":8,\"Password\":\"c2VjcmV0\"}");
  MyUser empty;
  empty.group = ToGroup(kViewer);
  empty.password = Encrypt("");
  Put("empty", empty);
  for (const char* name : {"none", "damaged", "empty"}) {
    EXPECT_EQ(18, Token(name, "")) << name;
    EXPECT_EQ(18, Token(name, "secret")) << name;
    EXPECT_EQ("", ha1_) << name;
  }
}

TEST_F(UserMapDigests, CountsEveryKindOfBadToken) {
  RestartWithPolicy();
  EXPECT_EQ(1, Wsse("alice", "", ""));
  EXPECT_EQ(1u, Stored("alice").failed_attempts);
  EXPECT_EQ(2, Wsse("alice", Digest("", kCreated, "secret"), ""));
  EXPECT_EQ(2u, Stored("alice").failed_attempts);
  EXPECT_EQ(16, Token("alice", "wrong"));
  EXPECT_EQ(kStart, Stored("alice").disabled_time);
  EXPECT_EQ(16, Token("alice", "secret"));
}

TEST_F(UserMapDigests, LocksAtTheThirdWrongToken) {
  RestartWithPolicy();
  EXPECT_EQ(18, Token("alice", "wrong"));
  EXPECT_EQ(18, Token("alice", "wrong"));
  EXPECT_EQ(16, Token("alice", "wrong"));
  EXPECT_EQ("", ha1_);
}

TEST_F(UserMapDigests, LocksAtAMalformedDigestOrNonceToo) {
  RestartWithPolicy();
  Token("alice", "wrong");
  Token("alice", "wrong");
  EXPECT_EQ(16, Wsse("alice", "", "QUJD"));
  Put("bob", "secret", kViewer);
  RestartWithPolicy();
  Token("bob", "wrong");
  Token("bob", "wrong");
  EXPECT_EQ(16, Wsse("bob", Digest("", kCreated, "secret"), ""));
}

TEST_F(UserMapDigests, KnowsNoRetryDelay) {
  RestartWithPolicy();
  EXPECT_EQ(18, Token("alice", "wrong"));
  EXPECT_EQ(0, Token("alice", "secret"));
  EXPECT_EQ(0u, Stored("alice").failed_attempts);
}

TEST_F(UserMapDigests, AnswersExpiredOnlyToAMatchingToken) {
  Put("alice", "secret", kViewer, 1);
  RestartWithPolicy();
  EXPECT_EQ(18, Token("alice", "wrong"));
  EXPECT_EQ(17, Token("alice", "secret"));
  EXPECT_EQ("", ha1_);
  EXPECT_EQ(0u, Stored("alice").failed_attempts);
}

TEST_F(UserMapDigests, TakesAPasswordThatCannotBeDecryptedForAWrongOne) {
  RestartWithPolicy();
  Store().Size();
  const FailingDecryptions failing;
  EXPECT_EQ(18, Token("alice", "secret"));
  EXPECT_EQ("", ha1_);
  EXPECT_EQ(1, Wsse("alice", "", ""));
  EXPECT_EQ(16, Token("alice", "secret"));
  EXPECT_EQ(3u, Stored("alice").failed_attempts);
}

TEST_F(UserMapDigests, TriesTheKeyForAnyNameWhileTheLibraryDoesNotTakeIt) {
  settings_.PutJson("user.none", "{\"Groups\":8}");
  Store().Size();
  const support::LibraryWithoutRsa library;
  for (const char* name : {"nosuch", "nosuch", "alice", "alice", "none", "none"}) {
    log_.Clear();
    EXPECT_NE(0, Token(name, "secret"));
    EXPECT_EQ(1u, log_.TextsOf("AtRestCipher", support::CapturingLog::Level::kError).size())
        << name;
  }
}

TEST_F(UserMapDigests, CountsNoTokenWithoutPolicy) {
  Store().Size();
  const unsigned long writes = krand_core_settings_write_count();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(18, Token("alice", "wrong"));
  EXPECT_EQ(0, Token("alice", "secret"));
  EXPECT_EQ(writes, krand_core_settings_write_count());
}

}  // namespace
}  // namespace vigila::server

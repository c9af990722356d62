#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/client_fixture.h"
#include "vigila/client/vigila.h"

extern "C" int c89_logon(char* token, char* nonce);

namespace vigila::client {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class VigilaCTest : public ClientFixture {
 protected:
  VigilaCTest() : client_(vigila_open()) {}
  ~VigilaCTest() override { vigila_close(client_); }

  int Http(vigila_client* client, const char* user, const char* nonce, const char* ha2,
           const char* response, const char* mode) {
    return vigila_authenticate_http(client, user, nonce, ha2, 1, "q", "c", "1", response, mode,
                                    token_);
  }
  int Wsse(vigila_client* client, const char* user, const char* digest, const char* nonce,
           const char* created, const char* mode) {
    return vigila_authenticate_wsse(client, user, digest, nonce, created, mode, token_);
  }

  char token_[VIGILA_TOKEN_SIZE] = "before";
  char nonce_[VIGILA_NONCE_SIZE] = "before";
  vigila_client* const client_;
};

TEST_F(VigilaCTest, HasRoomForEveryTokenAndNonce) {
  EXPECT_EQ(VIGILA_TOKEN_SIZE, 9);
  EXPECT_EQ(VIGILA_NONCE_SIZE, 33);
}

TEST_F(VigilaCTest, IgnoresTheClosingOfNoClient) {
  vigila_close(nullptr);
}

TEST_F(VigilaCTest, LogsInWithCountedBytes) {
  EXPECT_EQ(vigila_authenticate(client_, "al\0ice!", 6, "\xff\0x", 2, "cache", token_), 1);
  EXPECT_STREQ(token_, "12345678");
  EXPECT_THAT(proxy_->Calls(), ElementsAre("Authenticate(true, YWwAaWNl, /wA=)"));
}

TEST_F(VigilaCTest, RefusesALogonWithoutNameOrPassword) {
  EXPECT_EQ(vigila_authenticate(client_, "alice", 5, "", 0, "", token_), 0);
  EXPECT_EQ(vigila_authenticate(client_, "alice", 0, "secret", 6, "", token_), 0);
  EXPECT_EQ(vigila_authenticate(nullptr, "alice", 5, "secret", 6, "", token_), 0);
  EXPECT_EQ(vigila_authenticate(client_, nullptr, 5, "secret", 6, "", token_), 0);
  EXPECT_EQ(vigila_authenticate(client_, "alice", 5, nullptr, 6, "", token_), 0);
  EXPECT_EQ(vigila_authenticate(client_, "alice", 5, "secret", 6, nullptr, token_), 0);
  EXPECT_STREQ(token_, "before");
  EXPECT_THAT(proxy_->Calls(), IsEmpty());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(VigilaCTest, LogsInWithoutATokenBuffer) {
  EXPECT_EQ(vigila_authenticate(client_, "alice", 5, "secret", 6, "", nullptr), 1);
  EXPECT_EQ(vigila_authenticate_http(client_, "u", "n", "h", 0, "", "", "", "r", "", nullptr), 1);
  EXPECT_EQ(vigila_authenticate_wsse(client_, "u", "d", "n", "c", "", nullptr), 1);
}

TEST_F(VigilaCTest, CopiesTheTokenAlsoOfAFailedLogon) {
  proxy_->text = "_EXPIRED";
  EXPECT_EQ(vigila_authenticate(client_, "alice", 5, "secret", 6, "", token_), 0);
  EXPECT_STREQ(token_, "_EXPIRED");
  proxy_->text = "DISABLED";
  EXPECT_EQ(Http(client_, "u", "n", "h", "r", ""), 1);
  EXPECT_STREQ(token_, "DISABLED");
  proxy_->text = "NODIGEST";
  EXPECT_EQ(Wsse(client_, "u", "d", "n", "c", ""), 0);
  EXPECT_STREQ(token_, "NODIGEST");
  proxy_->Fail();
  EXPECT_EQ(Wsse(client_, "u", "d", "n", "c", ""), 0);
  EXPECT_STREQ(token_, "");
}

TEST_F(VigilaCTest, TakesMissingDigestPartsForEmpty) {
  EXPECT_EQ(vigila_authenticate_http(client_, "u", "n", "h", 7, nullptr, nullptr, nullptr, "r",
                                     "cache", token_),
            1);
  EXPECT_THAT(proxy_->Calls(), ElementsAre("AuthenticateHttp(true, u, n, h, true, , , , r)"));
}

TEST_F(VigilaCTest, RefusesDigestLogonsWithNullTexts) {
  EXPECT_EQ(Http(nullptr, "u", "n", "h", "r", ""), 0);
  EXPECT_EQ(Http(client_, nullptr, "n", "h", "r", ""), 0);
  EXPECT_EQ(Http(client_, "u", nullptr, "h", "r", ""), 0);
  EXPECT_EQ(Http(client_, "u", "n", nullptr, "r", ""), 0);
  EXPECT_EQ(Http(client_, "u", "n", "h", nullptr, ""), 0);
  EXPECT_EQ(Http(client_, "u", "n", "h", "r", nullptr), 0);
  EXPECT_EQ(Wsse(nullptr, "u", "d", "n", "c", ""), 0);
  EXPECT_EQ(Wsse(client_, nullptr, "d", "n", "c", ""), 0);
  EXPECT_EQ(Wsse(client_, "u", nullptr, "n", "c", ""), 0);
  EXPECT_EQ(Wsse(client_, "u", "d", nullptr, "c", ""), 0);
  EXPECT_EQ(Wsse(client_, "u", "d", "n", nullptr, ""), 0);
  EXPECT_EQ(Wsse(client_, "u", "d", "n", "c", nullptr), 0);
  EXPECT_STREQ(token_, "before");
  EXPECT_THAT(proxy_->Calls(), IsEmpty());
}

TEST_F(VigilaCTest, PassesEmptyTextsWhereOnlyNullIsRefused) {
  EXPECT_EQ(Http(client_, "", "", "", "", ""), 1);
  EXPECT_EQ(Wsse(client_, "", "", "", "", ""), 1);
  EXPECT_EQ(vigila_authorize(client_, "", ""), 1);
  EXPECT_EQ(proxy_->Calls().size(), 3u);
}

TEST_F(VigilaCTest, AsksTheThreeQuestions) {
  EXPECT_EQ(vigila_authorize(client_, "t", "/p"), 1);
  EXPECT_EQ(vigila_is_authenticated(client_, "t"), 1);
  EXPECT_EQ(vigila_is_protected(client_, "/p"), 1);
  EXPECT_THAT(proxy_->Calls(),
              ElementsAre("Authorize(t, /p)", "IsAuthenticated(t)", "IsProtected(/p)"));
  proxy_->flag = false;
  EXPECT_EQ(vigila_authorize(client_, "u", "/p"), 0);
  EXPECT_EQ(vigila_is_authenticated(client_, "u"), 0);
  EXPECT_EQ(vigila_is_protected(client_, "/q"), 0);
}

TEST_F(VigilaCTest, RefusesNullInTheThreeQuestions) {
  EXPECT_EQ(vigila_authorize(nullptr, "t", "/p"), 0);
  EXPECT_EQ(vigila_authorize(client_, nullptr, "/p"), 0);
  EXPECT_EQ(vigila_authorize(client_, "t", nullptr), 0);
  EXPECT_EQ(vigila_is_authenticated(nullptr, "t"), 0);
  EXPECT_EQ(vigila_is_authenticated(client_, nullptr), 0);
  EXPECT_EQ(vigila_is_protected(nullptr, "/p"), 0);
  EXPECT_EQ(vigila_is_protected(client_, nullptr), 0);
  EXPECT_THAT(proxy_->Calls(), IsEmpty());
}

TEST_F(VigilaCTest, AnswersATryFromMemoryOrSaysThatItWouldHaveToAsk) {
  EXPECT_EQ(vigila_try_authorize(client_, "t", "/p"), VIGILA_WOULD_HAVE_TO_ASK);
  EXPECT_EQ(vigila_try_is_protected(client_, "/p"), VIGILA_WOULD_HAVE_TO_ASK);
  EXPECT_THAT(proxy_->Calls(), IsEmpty());
  vigila_authorize(client_, "t", "/p");
  vigila_is_protected(client_, "/p");
  proxy_->flag = false;
  vigila_is_protected(client_, "/open");
  EXPECT_EQ(vigila_try_authorize(client_, "t", "/p"), 1);
  EXPECT_EQ(vigila_try_is_protected(client_, "/p"), 1);
  EXPECT_EQ(vigila_try_is_protected(client_, "/open"), 0);
  EXPECT_EQ(vigila_try_authorize(nullptr, "t", "/p"), VIGILA_WOULD_HAVE_TO_ASK);
  EXPECT_EQ(vigila_try_authorize(client_, nullptr, "/p"), VIGILA_WOULD_HAVE_TO_ASK);
  EXPECT_EQ(vigila_try_authorize(client_, "t", nullptr), VIGILA_WOULD_HAVE_TO_ASK);
  EXPECT_EQ(vigila_try_is_protected(nullptr, "/p"), VIGILA_WOULD_HAVE_TO_ASK);
  EXPECT_EQ(vigila_try_is_protected(client_, nullptr), VIGILA_WOULD_HAVE_TO_ASK);
}

TEST_F(VigilaCTest, CopiesANonce) {
  proxy_->text = std::string(32, 'a');
  EXPECT_EQ(vigila_get_nonce(client_, nonce_), 1);
  EXPECT_EQ(nonce_, std::string(32, 'a'));
}

TEST_F(VigilaCTest, SaysDoneAlsoWithoutANonce) {
  proxy_->Fail();
  EXPECT_EQ(vigila_get_nonce(client_, nonce_), 1);
  EXPECT_STREQ(nonce_, "");
}

TEST_F(VigilaCTest, RefusesNullForANonce) {
  EXPECT_EQ(vigila_get_nonce(nullptr, nonce_), 0);
  EXPECT_EQ(vigila_get_nonce(client_, nullptr), 0);
  EXPECT_STREQ(nonce_, "before");
  EXPECT_THAT(proxy_->Calls(), IsEmpty());
}

TEST_F(VigilaCTest, ServesACallerOfTheOldestKind) {
  EXPECT_EQ(c89_logon(token_, nonce_), 7);
  EXPECT_STREQ(token_, "12345678");
  EXPECT_STREQ(nonce_, "12345678");
}

}  // namespace
}  // namespace vigila::client

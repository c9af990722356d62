// UsernameToken logons: the provider's own requests, and those of recorded clients.
#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "json/reader.h"
#include "support/provider_environment.h"
#include "tevra/core/json_utils.h"
#include "vigila/server/session_manager.h"

namespace vigila::server {
namespace {

using krand::lib::Base64;
using tevra::interfaces::ISecurityProvider;
using Strings = std::vector<std::string>;
using tevra::core::Logger;

const char kNow[] = "2027-01-15T08:00:00Z";  // ServerUnderTest::kStart

// Written out from the UsernameToken profile, independent of the code under test.
std::string Digest(const std::string& nonce64, const std::string& created,
                   const std::string& password) {
  const std::string text = Base64::Decode(nonce64) + created + password;
  unsigned char sha[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), sha);
  return Base64::Encode(std::string(reinterpret_cast<const char*>(sha), sizeof(sha)));
}

class SecurityProviderWsse : public support::ProviderTest {
 protected:
  void SetUp() override {
    AddAdministrator();
    Add("alice", "secret", 8);
    log_.Clear();
  }

  // A nonce that was never sent before.
  std::string Nonce() { return Base64::Encode("nonce " + std::to_string(++nonces_)); }
  std::string Send(const std::string& nonce, const std::string& created = kNow,
                   const std::string& password = "secret", bool reuse = false) {
    return Provider().AuthenticateWsse(reuse, "alice", Digest(nonce, created, password), nonce,
                                       created);
  }

  int nonces_ = 0;
};

TEST_F(SecurityProviderWsse, RightDigestOpensASession) {
  const std::string token = Send(Nonce());
  ASSERT_TRUE(IsToken(token)) << token;
  EXPECT_EQ("alice", Provider().GetCredentials(token));
  const model::User* user = Provider().GetUser(token, false);
  EXPECT_EQ("3a503be02c866055123c57328926435e", user->Digest());
  EXPECT_EQ(ISecurityProvider::kViewers, user->GetGroup());
  EXPECT_FALSE(user->IsReusable());
  EXPECT_EQ(Strings({"Local user 'alice' has successfully logged on."}), Notices());
  EXPECT_EQ(Strings({"sending token " + token + " to client"}), Debugs());
}

TEST_F(SecurityProviderWsse, NonceServesOnce) {
  const std::string nonce = Nonce();
  EXPECT_TRUE(IsToken(Send(nonce)));
  EXPECT_EQ("NO_TOKEN", Send(nonce));
  EXPECT_EQ(Strings({"nonce " + nonce + " has already been used"}), Informations());
}

TEST_F(SecurityProviderWsse, NonceOfAFailedAttemptIsUsedUp) {
  const std::string wrong = Nonce(), stale = Nonce(), undated = Nonce(), alien = Nonce();
  EXPECT_EQ("NO_TOKEN", Send(wrong, kNow, "wrong"));
  EXPECT_EQ("NO_TOKEN", Send(stale, "2027-01-15T09:00:00Z"));
  EXPECT_EQ("NO_TOKEN", Send(undated, "today"));
  EXPECT_EQ("NO_TOKEN", Provider().AuthenticateWsse(false, "ghost", "", alien, kNow));
  log_.Clear();
  Strings expected;
  for (const std::string& nonce : {wrong, stale, undated, alien}) {
    EXPECT_EQ("NO_TOKEN", Send(nonce));
    expected.push_back("nonce " + nonce + " has already been used");
  }
  EXPECT_EQ(expected, Informations());
}

TEST_F(SecurityProviderWsse, NonceThatDecodesToNothingIsUsedUpAsWell) {
  EXPECT_EQ("NO_TOKEN", Send("not base64"));
  EXPECT_EQ("NO_TOKEN", Send("not base64"));
  EXPECT_EQ("NO_TOKEN", Send(""));
  EXPECT_EQ("NO_TOKEN", Send(""));
  EXPECT_EQ(Strings({"nonce not base64 is not base64", "nonce not base64 has already been used",
                     "nonce  is not base64", "nonce  has already been used"}),
            Informations());
}

TEST_F(SecurityProviderWsse, RespelledNonceIsNoNewNonce) {
  // "bm9uY2U=" and "bm9uY2V=" differ only in bits that a lenient reader drops.
  EXPECT_TRUE(IsToken(Send("bm9uY2U=")));
  const std::string digest = Digest("bm9uY2U=", kNow, "secret");
  for (const char* respelled : {"bm9uY2V=", "bm9uY2U", "bm9uY2U= ", "bm9u\nY2U="}) {
    EXPECT_EQ("NO_TOKEN", Provider().AuthenticateWsse(false, "alice", digest, respelled, kNow));
    EXPECT_EQ(std::string("nonce ") + respelled + " is not base64", Informations().back());
  }
}

TEST_F(SecurityProviderWsse, NonceServesAgainWhenItIsForgotten) {
  const std::string nonce = Nonce();
  EXPECT_TRUE(IsToken(Send(nonce)));
  server_.AdvanceSeconds(300);
  EXPECT_EQ("NO_TOKEN", Send(nonce));
  server_.Advance(1);
  EXPECT_TRUE(IsToken(Send(nonce)));  // its time stamp still is within the tolerance
}

TEST_F(SecurityProviderWsse, NonceServesAgainWhenNewerOnesPushedItOut) {
  const std::string nonce = Nonce();
  EXPECT_TRUE(IsToken(Send(nonce)));
  for (int i = 0; i < 1025; ++i) {
    server_.Advance(1);
    Provider().GetNonce();  // HTTP digest shares the cache
  }
  EXPECT_TRUE(IsToken(Send(nonce)));
}

TEST_F(SecurityProviderWsse, NonceOfHttpDigestIsKnownHere) {
  const std::string nonce = Provider().GetNonce();
  EXPECT_EQ("NO_TOKEN", Send(nonce));
  EXPECT_EQ(Strings({"nonce " + nonce + " has already been used"}), Informations());
}

TEST_F(SecurityProviderWsse, GiantNoncesServeOnceEachAndAreToldApart) {
  const std::string giant = Base64::Encode(std::string(300000, 'n') + "ne");
  const std::string other = Base64::Encode(std::string(300000, 'n') + "no");
  EXPECT_TRUE(IsToken(Send(giant)));
  EXPECT_EQ("NO_TOKEN", Send(giant));
  EXPECT_EQ("nonce " + giant + " has already been used", Informations().back());
  EXPECT_TRUE(IsToken(Send(other)));
  EXPECT_EQ("NO_TOKEN", Send(other));
  EXPECT_TRUE(IsToken(Send(giant.substr(0, 256))));  // not what is remembered of the giant
}

TEST_F(SecurityProviderWsse, GiantNonceIsKnownToHttpDigestToo) {
  const std::string giant(1000, 'n');
  const std::string response =
      model::User::MD5sum("3a503be02c866055123c57328926435e:" + giant + ":ha2");
  const auto http = [&] {
    return Provider().AuthenticateHttp(false, "alice", giant, "ha2", false, "", "", "", response);
  };
  EXPECT_EQ("_EXPIRED", http());
  EXPECT_EQ("NO_TOKEN", Send(giant, "today"));
  EXPECT_TRUE(IsToken(http()));
}

TEST_F(SecurityProviderWsse, ClockMayBeThreeHundredWholeSecondsOff) {
  for (const char* created : {"2027-01-15T07:55:00Z", "2027-01-15T08:05:00Z",
                              "2027-01-15T07:54:59.000001Z", "2027-01-15T08:05:00.999999Z"}) {
    EXPECT_TRUE(IsToken(Send(Nonce(), created))) << created;
  }
  EXPECT_TRUE(Informations().empty());
  Strings expected;
  for (const char* created :
       {"2027-01-15T07:54:59Z", "2027-01-15T08:05:01Z", "2027-01-15T07:54:58.5Z",
        "1970-01-01T00:00:00.667Z", "0001-01-01T00:00:00Z", "9999-12-31T23:59:59Z"}) {
    EXPECT_EQ("NO_TOKEN", Send(Nonce(), created)) << created;
    expected.push_back(std::string("digest created time ") + created +
                       " is more than 300 seconds off local clock");
  }
  EXPECT_EQ(expected, Informations());
}

TEST_F(SecurityProviderWsse, ZonesAreHonouredAndNoZoneIsUtc) {
  EXPECT_TRUE(IsToken(Send(Nonce(), "2027-01-15T10:00:00+02:00")));
  EXPECT_TRUE(IsToken(Send(Nonce(), "2027-01-15T08:00:00")));
  EXPECT_EQ("NO_TOKEN", Send(Nonce(), "2027-01-15T08:00:00+02:00"));
}

TEST_F(SecurityProviderWsse, TimeThatIsNoDateIsRefused) {
  Strings expected;
  for (const char* created : {"", "now", "2027-01-15", "2027-13-15T08:00:00Z",
                              "2027-02-29T08:00:00Z", "1800000000", "%n%s"}) {
    EXPECT_EQ("NO_TOKEN", Send(Nonce(), created)) << created;
    expected.push_back(std::string("digest created time ") + created + " is not ISO 8601 format");
  }
  EXPECT_EQ(expected, Informations());
}

TEST_F(SecurityProviderWsse, RefusalsNameTheirReason) {
  const std::string wrong = Digest(Nonce(), kNow, "secret");
  EXPECT_EQ("NO_TOKEN", Provider().AuthenticateWsse(false, "alice", wrong, Nonce(), kNow));
  EXPECT_EQ(Strings({"Digest doesn't match SHA1 calculation for user alice.  Invalid password."}),
            Informations());
  log_.Clear();
  EXPECT_EQ("NO_TOKEN",
            Provider().AuthenticateWsse(false, "alice", "MTIzNDU2Nzg5MDEyMzQ1Ng==", Nonce(), kNow));
  EXPECT_EQ(Strings({"digest MTIzNDU2Nzg5MDEyMzQ1Ng== is not SHA1"}), Informations());
  log_.Clear();
  EXPECT_EQ("NO_TOKEN", Provider().AuthenticateWsse(false, "ghost", wrong, Nonce(), kNow));
  EXPECT_EQ("NO_TOKEN", Provider().AuthenticateWsse(false, "nobody", wrong, Nonce(), kNow));
  EXPECT_EQ(Strings({"Nonexistent user ghost", "Nonexistent user nobody"}), Notices());
}

TEST_F(SecurityProviderWsse, DigestLengthIsLookedAtBeforeTheNonce) {
  EXPECT_EQ("NO_TOKEN", Provider().AuthenticateWsse(false, "alice", "", "not base64", kNow));
  EXPECT_EQ(Strings({"digest  is not SHA1"}), Informations());
}

TEST_F(SecurityProviderWsse, AccountWithoutAPasswordMatchesNoDigestNotEvenOfTheEmptyPassword) {
  ASSERT_EQ(KRAND_CORE_OK, krand_core_settings_set_json_value("user.empty", "{\"Groups\":8}"));
  SecurityProvider provider(&server_.Env());
  const std::string nonce = Nonce();
  EXPECT_EQ("NO_TOKEN",
            provider.AuthenticateWsse(false, "empty", Digest(nonce, kNow, ""), nonce, kNow));
  EXPECT_EQ(Strings({"Digest doesn't match SHA1 calculation for user empty.  Invalid password."}),
            Informations());
}

TEST_F(SecurityProviderWsse, ReusingLogonsShareASessionAndLogTheWordsOfThePasswordLogon) {
  const std::string token = Send(Nonce(), kNow, "secret", true);
  ASSERT_TRUE(IsToken(token));
  log_.Clear();
  EXPECT_EQ(token, Send(Nonce(), kNow, "secret", true));
  EXPECT_EQ(Strings({"username/password token cached " + token + " to client"}), Debugs());
  EXPECT_NE(token, Send(Nonce()));
  EXPECT_EQ(token, Logon("alice", "secret", true));
}

TEST_F(SecurityProviderWsse, ReusingLogonStillNeedsTheRightDigest) {
  const std::string token = Send(Nonce(), kNow, "secret", true);
  EXPECT_EQ("NO_TOKEN", Send(Nonce(), kNow, "wrong", true));
}

TEST_F(SecurityProviderWsse, ReusingLogonRestartsTheIdleTimer) {
  const std::string token = Send(Nonce(), kNow, "secret", true);
  server_.AdvanceSeconds(1800);
  EXPECT_EQ(token, Send(Nonce(), "2027-01-15T08:30:00Z", "secret", true));
  server_.AdvanceSeconds(1800);
  EXPECT_EQ("alice", Provider().GetCredentials(token));
}

class SecurityProviderWssePolicy : public SecurityProviderWsse {
 protected:
  void SetUp() override {
    Provider().EnforcePasswordPolicy(true);
    SecurityProviderWsse::SetUp();
  }
};

TEST_F(SecurityProviderWssePolicy, ThirdWrongDigestDisablesTheAccountAndTheRightOneStaysOut) {
  EXPECT_EQ("NO_TOKEN", Send(Nonce(), kNow, "wrong"));
  EXPECT_EQ("NO_TOKEN", Send(Nonce(), kNow, "wrong"));  // at once: no retry delay here
  EXPECT_EQ("DISABLED", Send(Nonce(), kNow, "wrong"));
  log_.Clear();
  EXPECT_EQ("DISABLED", Send(Nonce()));
  EXPECT_EQ(Strings({"User account 'alice' is disabled; too many invalid passwords."}), Notices());
}

TEST_F(SecurityProviderWssePolicy, RightDigestOverAnExpiredPasswordIsToldSo) {
  server_.AdvanceSeconds(60 * 86400 + 1);
  const char later[] = "2027-03-16T08:00:01Z";
  EXPECT_EQ("NO_TOKEN", Send(Nonce(), later, "wrong"));
  log_.Clear();
  EXPECT_EQ("_EXPIRED", Send(Nonce(), later));
  EXPECT_EQ(Strings({"Password has expired for local user 'alice'."}), Notices());
}

TEST_F(SecurityProviderWssePolicy, StaleAndReplayedRequestsAreNotCountedAsFailures) {
  const std::string nonce = Nonce();
  EXPECT_TRUE(IsToken(Send(nonce)));
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ("NO_TOKEN", Send(nonce, kNow, "wrong"));
    EXPECT_EQ("NO_TOKEN", Send(Nonce(), "2027-01-15T09:00:00Z", "wrong"));
    EXPECT_EQ("NO_TOKEN", Send(Nonce(), "today", "wrong"));
  }
  EXPECT_TRUE(IsToken(Send(Nonce())));
}

// Recorded envelopes of real clients.
std::string Element(const std::string& text, const std::string& name, size_t from) {
  const size_t tag = text.find(name, from);
  const size_t first = text.find('>', tag) + 1;
  return tag == std::string::npos ? "" : text.substr(first, text.find('<', first) - first);
}

TEST_F(SecurityProviderWsse, EveryRecordedDigestIsAcceptedAtItsCreationTime) {
  int digests = 0;
  const std::string folder = std::string(TEST_DATA_DIR) + "/soap";
  for (const auto& file : std::filesystem::directory_iterator(folder)) {
    std::ifstream stream(file.path(), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(stream)),
                           std::istreambuf_iterator<char>());
    const size_t token = text.find("UsernameToken");
    if (token == std::string::npos) continue;
    const std::string created = Element(text, "Created", token);
    const std::string nonce = Element(text, "Nonce", token);
    const std::string digest = Element(text, "Password", token);
    EXPECT_EQ("alice", Element(text, "Username", text.find('>', token))) << file.path();
    const auto time = tevra::osa::DateTime(created).ToTimeStruct();
    server_.SetTime(time.seconds, time.microseconds);
    EXPECT_EQ("NO_TOKEN",
              Provider().AuthenticateWsse(false, "admin", digest, Base64::Encode(nonce), created));
    EXPECT_TRUE(IsToken(Provider().AuthenticateWsse(false, "alice", digest, nonce, created)))
        << file.path();
    ++digests;
  }
  EXPECT_EQ(11, digests);
}

TEST_F(SecurityProviderWsse, PublishedExamplesAreJudgedAsTheirNotesSay) {
  std::ifstream stream(std::string(TEST_DATA_DIR) + "/digest/vectors.json");
  json::Array vectors;
  json::Reader::Read(vectors, stream);
  int checked = 0;
  for (const json::UnknownElement& element : vectors) {
    const auto& vector = element.get_ref<const json::Object&>();
    const auto text = [&](const char* name) {
      return tevra::core::JsonUtils::AsString(json::Member(vector, name));
    };
    if (text("kind").rfind("wsse", 0) != 0) continue;
    const bool malformed = text("kind") == "wsse-malformed";
    const std::string name = text("username");
    Add(name, malformed ? "unpublished" : text("password"), 8);
    const auto time = tevra::osa::DateTime(text("created")).ToTimeStruct();
    server_.SetTime(time.seconds);
    const std::string token =
        Provider().AuthenticateWsse(false, name, text("published"), text("nonce"), text("created"));
    const bool raw_nonce = !malformed && json::Member(vector, "raw_nonce").get<json::Boolean>();
    EXPECT_EQ(!malformed && !raw_nonce, IsToken(token)) << text("name");
    ++checked;
  }
  EXPECT_EQ(3, checked);
}

}  // namespace
}  // namespace vigila::server

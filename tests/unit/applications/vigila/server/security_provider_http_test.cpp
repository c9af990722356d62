// HTTP digest logons: the provider's own requests, and those of recorded clients.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "json/reader.h"
#include "support/provider_environment.h"
#include "tevra/core/json_utils.h"
#include "vigila/server/session_manager.h"

namespace vigila::server {
namespace {

using tevra::interfaces::ISecurityProvider;
using Strings = std::vector<std::string>;
using model::User;

const char kAliceHa1[] = "3a503be02c866055123c57328926435e";  // alice:Varno:secret
const char kHa2[] = "39aff3a2bab6126f332b942af96d3366";       // GET:/dir/index.html
const char kCnonce[] = "0a4f113b";

// The fields of one Authorization header.
struct Answer {
  std::string username = "alice";
  std::string nonce;
  std::string ha2 = kHa2;
  bool sess = false;
  std::string qop = "auth";
  std::string cnonce = kCnonce;
  std::string nc = "00000001";
  std::string response;
};

// Written out from RFC 2617, independent of the code under test.
std::string Response(const std::string& ha1, const Answer& answer) {
  const std::string key =
      answer.sess ? User::MD5sum(ha1 + ":" + answer.nonce + ":" + answer.cnonce) : ha1;
  if (answer.qop == "auth" || answer.qop == "auth-int") {
    return User::MD5sum(key + ":" + answer.nonce + ":" + answer.nc + ":" + answer.cnonce + ":" +
                        answer.qop + ":" + answer.ha2);
  }
  return User::MD5sum(key + ":" + answer.nonce + ":" + answer.ha2);
}

class SecurityProviderHttp : public support::ProviderTest {
 protected:
  void SetUp() override {
    AddAdministrator();
    Add("alice", "secret", 8);
    log_.Clear();
  }

  Answer Signed(Answer answer) {
    answer.response = Response(kAliceHa1, answer);
    return answer;
  }
  Answer SignedFor(const std::string& nonce) {
    Answer answer;
    answer.nonce = nonce;
    return Signed(answer);
  }
  std::string Send(const Answer& answer, bool reuse = false) {
    return Provider().AuthenticateHttp(reuse, answer.username, answer.nonce, answer.ha2,
                                       answer.sess, answer.qop, answer.cnonce, answer.nc,
                                       answer.response);
  }
};

TEST_F(SecurityProviderHttp, NonceIsThirtyTwoLowerCaseDigitsAndNew) {
  std::set<std::string> nonces;
  for (int i = 0; i < 100; ++i) {
    const std::string nonce = Provider().GetNonce();
    EXPECT_EQ(32u, nonce.size());
    EXPECT_EQ(std::string::npos, nonce.find_first_not_of("0123456789abcdef")) << nonce;
    EXPECT_TRUE(nonces.insert(nonce).second);
  }
}

TEST_F(SecurityProviderHttp, RightResponseOpensASession) {
  const std::string token = Send(SignedFor(Provider().GetNonce()));
  ASSERT_TRUE(IsToken(token)) << token;
  EXPECT_EQ("alice", Provider().GetCredentials(token));
  const User* user = Provider().GetUser(token, false);
  ASSERT_NE(nullptr, user);
  EXPECT_EQ(kAliceHa1, user->Digest());
  EXPECT_EQ(ISecurityProvider::kViewers, user->GetGroup());
  EXPECT_FALSE(user->IsReusable());
  EXPECT_EQ(Strings({"Local user 'alice' has successfully logged on."}), Notices());
  EXPECT_EQ(Strings({"sending token " + token + " to client"}), Debugs());
}

TEST_F(SecurityProviderHttp, OnlyTheProviderLogsADigestLogon) {
  Send(SignedFor(Provider().GetNonce()));
  EXPECT_TRUE(log_.TextsOf("UserMap").empty());
}

TEST_F(SecurityProviderHttp, CountMustRiseFromRequestToRequest) {
  Answer answer = SignedFor(Provider().GetNonce());
  EXPECT_TRUE(IsToken(Send(answer)));
  EXPECT_EQ("_EXPIRED", Send(answer));
  answer.nc = "00000002";
  answer = Signed(answer);
  EXPECT_TRUE(IsToken(Send(answer)));
  answer.nc = "00000001";
  EXPECT_EQ("_EXPIRED", Send(Signed(answer)));
  answer.nc = "0000000A";
  EXPECT_TRUE(IsToken(Send(Signed(answer))));
}

TEST_F(SecurityProviderHttp, OldFormHasNoCountToReplay) {
  Answer answer;
  answer.nonce = Provider().GetNonce();
  answer.qop = answer.cnonce = answer.nc = "";
  answer = Signed(answer);
  EXPECT_TRUE(IsToken(Send(answer)));
  EXPECT_TRUE(IsToken(Send(answer)));
}

TEST_F(SecurityProviderHttp, AuthIntIsAuthWithAnotherWord) {
  Answer answer;
  answer.nonce = Provider().GetNonce();
  answer.qop = "auth-int";
  answer = Signed(answer);
  Answer as_auth = answer;
  as_auth.qop = "auth";
  EXPECT_EQ("NO_TOKEN", Send(as_auth));
  EXPECT_TRUE(IsToken(Send(answer)));
}

TEST_F(SecurityProviderHttp, EveryOtherQopIsTheOldForm) {
  int count = 0;
  for (const char* qop : {"", "Auth", "AUTH", "auth ", "auth,auth-int", "auth-conf"}) {
    Answer answer;
    answer.nonce = Provider().GetNonce();
    answer.qop = qop;
    answer.response = User::MD5sum(std::string(kAliceHa1) + ":" + answer.nonce + ":" + kHa2);
    EXPECT_TRUE(IsToken(Send(answer))) << qop;
    ++count;
  }
  EXPECT_EQ(6, count);
}

TEST_F(SecurityProviderHttp, CountIsCheckedInTheOldFormTooWhenThereIsOne) {
  Answer answer;
  answer.nonce = Provider().GetNonce();
  answer.qop = "";
  answer.nc = "1";
  answer = Signed(answer);
  EXPECT_TRUE(IsToken(Send(answer)));
  EXPECT_EQ("_EXPIRED", Send(answer));
}

TEST_F(SecurityProviderHttp, WrongResponseUsesUpNoCount) {
  const Answer right = SignedFor(Provider().GetNonce());
  Answer wrong = right;
  wrong.response[0] = wrong.response[0] == '0' ? '1' : '0';
  EXPECT_EQ("NO_TOKEN", Send(wrong));
  EXPECT_TRUE(IsToken(Send(right)));
}

TEST_F(SecurityProviderHttp, ResponseIsComparedByteForByte) {
  const Answer right = SignedFor(Provider().GetNonce());
  const std::string digits = right.response;
  std::string upper = digits;
  for (char& digit : upper) digit = static_cast<char>(toupper(digit));
  ASSERT_NE(digits, upper);
  for (const std::string& response :
       {upper, digits.substr(0, 31), digits + "0", std::string(), digits + std::string(1, '\0'),
        " " + digits, digits.substr(0, 31) + "g"}) {
    Answer answer = right;
    answer.response = response;
    EXPECT_EQ("NO_TOKEN", Send(answer)) << response;
  }
  EXPECT_TRUE(IsToken(Send(right)));
}

TEST_F(SecurityProviderHttp, ResponseOfAnotherAlgorithmDoesNotMatch) {
  Answer answer = SignedFor(Provider().GetNonce());
  // Of SHA-256, which some clients answer with although it was not offered.
  answer.response = "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1";
  EXPECT_EQ("NO_TOKEN", Send(answer));
}

TEST_F(SecurityProviderHttp, EveryFieldIsUnderTheResponse) {
  const Answer right = SignedFor(Provider().GetNonce());
  for (std::string Answer::*field : {&Answer::ha2, &Answer::cnonce, &Answer::nc, &Answer::nonce}) {
    for (const char* change : {"", "x"}) {
      Answer answer = right;
      answer.*field = *change == '\0' ? "" : right.*field + change;
      EXPECT_EQ("NO_TOKEN", Send(answer));
    }
  }
  Answer answer = right;
  answer.sess = true;
  EXPECT_EQ("NO_TOKEN", Send(answer));
  EXPECT_TRUE(IsToken(Send(right)));
}

TEST_F(SecurityProviderHttp, NonceLivesThreeHundredSecondsInclusive) {
  const Answer first = SignedFor(Provider().GetNonce());
  server_.AdvanceSeconds(300);
  EXPECT_TRUE(IsToken(Send(first)));
  Answer second = first;
  second.nc = "00000002";
  server_.Advance(1);
  EXPECT_EQ("_EXPIRED", Send(Signed(second)));
}

TEST_F(SecurityProviderHttp, NonceThatWasNeverIssuedIsStale) {
  Answer answer = SignedFor("0123456789abcdef0123456789abcdef");
  EXPECT_EQ("_EXPIRED", Send(answer));
  EXPECT_EQ("_EXPIRED", Send(SignedFor("")));
  answer.response = "00000000000000000000000000000000";
  EXPECT_EQ("NO_TOKEN", Send(answer));  // the response decides first
}

TEST_F(SecurityProviderHttp, CountsOfEveryKind) {
  const struct {
    const char* nc;
    bool accepted;
  } rows[] = {{"0", false},  {"00000000", false},
              {"zz", false}, {"1", true},
              {"2x", true},  {" 3", true},
              {"0x4", true}, {"-1", true},
              {"-1", false}, {"ffffffffffffffffff", false}};
  const std::string nonce = Provider().GetNonce();
  for (const auto& row : rows) {
    Answer answer;
    answer.nonce = nonce;
    answer.nc = row.nc;
    const std::string token = Send(Signed(answer));
    EXPECT_EQ(row.accepted, IsToken(token)) << row.nc;
    EXPECT_EQ(row.accepted ? token : "_EXPIRED", token) << row.nc;
  }
}

TEST_F(SecurityProviderHttp, SessFormIsKeyedByNonceAndCnonceButTheSessionCarriesTheStoredDigest) {
  Answer answer;
  answer.nonce = Provider().GetNonce();
  answer.sess = true;
  const std::string token = Send(Signed(answer));
  ASSERT_TRUE(IsToken(token));
  EXPECT_EQ(kAliceHa1, Provider().GetUser(token, false)->Digest());
}

TEST_F(SecurityProviderHttp, ReusingLogonsShareASessionAlsoAcrossSchemes) {
  const std::string token = Send(SignedFor(Provider().GetNonce()), true);
  ASSERT_TRUE(IsToken(token));
  EXPECT_TRUE(Provider().GetUser(token, false)->IsReusable());
  log_.Clear();
  EXPECT_EQ(token, Send(SignedFor(Provider().GetNonce()), true));
  EXPECT_EQ(Strings({"username/digest token cached " + token + " to client"}), Debugs());
  EXPECT_TRUE(Notices().empty());

  Answer sess;
  sess.nonce = Provider().GetNonce();
  sess.sess = true;
  EXPECT_EQ(token, Send(Signed(sess), true));  // found by the stored digest
  EXPECT_EQ(token, Logon("alice", "secret", true));
  EXPECT_NE(token, Send(SignedFor(Provider().GetNonce()), false));
}

TEST_F(SecurityProviderHttp, ReusingLogonRestartsTheIdleTimer) {
  const std::string token = Send(SignedFor(Provider().GetNonce()), true);
  server_.AdvanceSeconds(1800);
  EXPECT_EQ(token, Send(SignedFor(Provider().GetNonce()), true));
  server_.AdvanceSeconds(1800);
  EXPECT_EQ("alice", Provider().GetCredentials(token));
}

TEST_F(SecurityProviderHttp, NobodyIsRefusedEvenWithARightDigest) {
  Answer answer;
  answer.username = "nobody";
  answer.nonce = Provider().GetNonce();
  answer.response = Response(User::MD5sum("nobody:Varno:"), answer);
  EXPECT_EQ("NO_TOKEN", Send(answer));
}

TEST_F(SecurityProviderHttp, UnknownUsersAreRefusedInSilence) {
  for (const std::string& name :
       {std::string("ghost"), std::string(), std::string("Alice"), std::string("alice\0", 6),
        std::string("\xff\xfe"), std::string("al\"ice"), std::string("al\\ice")}) {
    Answer answer;
    answer.username = name;
    answer.nonce = Provider().GetNonce();
    answer.response = Response(User::MD5sum(name + ":Varno:secret"), answer);
    EXPECT_EQ("NO_TOKEN", Send(answer));
  }
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(SecurityProviderHttp, AccountWithoutAPasswordHasNoDigest) {
  // Stored from outside before the server first looks: such an account matches no response.
  ASSERT_EQ(KRAND_CORE_OK, krand_core_settings_set_json_value("user.empty", "{\"Groups\":8}"));
  SecurityProvider provider(&server_.Env());
  Answer answer;
  answer.username = "empty";
  answer.nonce = provider.GetNonce();
  answer.response = Response(User::MD5sum("empty:Varno:"), answer);
  EXPECT_EQ("NO_TOKEN",
            provider.AuthenticateHttp(false, answer.username, answer.nonce, answer.ha2, answer.sess,
                                      answer.qop, answer.cnonce, answer.nc, answer.response));
}

TEST_F(SecurityProviderHttp, NewPasswordHasANewDigest) {
  EXPECT_TRUE(IsToken(Send(SignedFor(Provider().GetNonce()))));
  ASSERT_EQ(0,
            Provider().ModifyUsers(support::UsersJson({support::UserJson("alice", "another", 8)})));
  EXPECT_EQ("NO_TOKEN", Send(SignedFor(Provider().GetNonce())));
  Answer answer;
  answer.nonce = Provider().GetNonce();
  answer.response = Response(User::MD5sum("alice:Varno:another"), answer);
  EXPECT_TRUE(IsToken(Send(answer)));
}

TEST_F(SecurityProviderHttp, LookAlikeRequestsNeedNoMemoryOfTheirs) {
  Answer answer = SignedFor(std::string(100000, 'n'));
  EXPECT_EQ("_EXPIRED", Send(answer));
  answer.response = std::string(100000, 'r');
  EXPECT_EQ("NO_TOKEN", Send(answer));
}

TEST_F(SecurityProviderHttp, NewestNoncesSurviveAFloodOfChallenges) {
  const Answer early = SignedFor(Provider().GetNonce());
  for (int i = 0; i < 2000; ++i) {
    server_.Advance(1);
    Provider().GetNonce();
  }
  const Answer late = SignedFor(Provider().GetNonce());
  EXPECT_EQ("_EXPIRED", Send(early));  // the client gets through with the next nonce
  EXPECT_TRUE(IsToken(Send(late)));
}

// With the policy on.
class SecurityProviderHttpPolicy : public support::ProviderTest {
 protected:
  void SetUp() override {
    Provider().EnforcePasswordPolicy(true);
    AddAdministrator();
    Add("alice", "secret", 8);
  }
  std::string Send() {
    Answer answer;
    answer.nonce = Provider().GetNonce();
    answer.response = Response(kAliceHa1, answer);
    return Provider().AuthenticateHttp(false, answer.username, answer.nonce, answer.ha2, false,
                                       answer.qop, answer.cnonce, answer.nc, answer.response);
  }
};

TEST_F(SecurityProviderHttpPolicy, LockedAccountGetsNoTokenAndNotDisabled) {
  for (int i = 0; i < 3; ++i) {
    server_.AdvanceSeconds(5);
    Logon("alice", "wrong");
  }
  log_.Clear();
  EXPECT_EQ("NO_TOKEN", Send());
  EXPECT_TRUE(Notices().empty());
}

TEST_F(SecurityProviderHttpPolicy, ExpiredPasswordGetsNoTokenSinceExpiredMeansAStaleNonceHere) {
  server_.AdvanceSeconds(60 * 86400 + 1);
  EXPECT_EQ("NO_TOKEN", Send());
}

TEST_F(SecurityProviderHttpPolicy, DigestLogonNeitherCountsNorClearsFailures) {
  server_.AdvanceSeconds(5);
  EXPECT_EQ("NO_TOKEN", Logon("alice", "wrong"));
  EXPECT_TRUE(IsToken(Send()));  // at once: no delay for digests
  server_.AdvanceSeconds(5);
  EXPECT_EQ("NO_TOKEN", Logon("alice", "wrong"));
  server_.AdvanceSeconds(5);
  EXPECT_EQ("DISABLED", Logon("alice", "wrong"));
}

// Recorded requests of real clients, whole, one file each.
struct Recording {
  std::string name;
  std::string method;
  std::map<std::string, std::string> fields;
};

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

Recording ReadRecording(const std::filesystem::path& path) {
  const std::string text = ReadFile(path);
  Recording recording;
  recording.name = path.filename();
  recording.method = text.substr(0, text.find(' '));
  size_t at = text.find("uthorization: Digest ");
  if (at == std::string::npos) return recording;
  at = text.find("Digest ", at) + 7;
  const size_t end = text.find_first_of("\r\n", at);
  while (at < end) {
    at = text.find_first_not_of(", ", at);
    const size_t equals = text.find('=', at);
    const bool quoted = text[equals + 1] == '"';
    const size_t first = equals + (quoted ? 2 : 1);
    const size_t last = quoted ? text.find('"', first) : text.find_first_of(",\r\n", first);
    recording.fields[text.substr(at, equals - at)] = text.substr(first, last - first);
    at = last + (quoted ? 1 : 0);
  }
  return recording;
}

std::vector<Recording> Recordings() {
  std::vector<Recording> recordings;
  const std::string folder = std::string(TEST_DATA_DIR) + "/digest/requests";
  for (const auto& file : std::filesystem::directory_iterator(folder)) {
    recordings.push_back(ReadRecording(file.path()));
  }
  return recordings;
}

Answer AnswerOf(const Recording& recording) {
  const auto field = [&](const char* name) {
    const auto found = recording.fields.find(name);
    return found == recording.fields.end() ? std::string() : found->second;
  };
  Answer answer;
  answer.username = field("username");
  answer.nonce = field("nonce");
  answer.ha2 = User::MD5sum(recording.method + ":" + field("uri"));
  answer.sess = field("algorithm") == "MD5-sess";
  answer.qop = field("qop");
  answer.cnonce = field("cnonce");
  answer.nc = field("nc");
  answer.response = field("response");
  return answer;
}

TEST_F(SecurityProviderHttp, EveryRecordedClientGetsIn) {
  const std::vector<Recording> recordings = Recordings();
  EXPECT_EQ(21u, recordings.size());
  for (const Recording& recording : recordings) {
    const Answer answer = AnswerOf(recording);
    EXPECT_EQ("Varno", recording.fields.at("realm")) << recording.name;
    EXPECT_EQ("alice", answer.username) << recording.name;
    EXPECT_EQ(Response(kAliceHa1, answer), answer.response) << recording.name;
    EXPECT_EQ("_EXPIRED", Send(answer)) << recording.name;
    // The web-service door shares the cache and notes every nonce that it sees.
    EXPECT_EQ("NO_TOKEN", Provider().AuthenticateWsse(false, "", "", answer.nonce, ""));
    EXPECT_TRUE(IsToken(Send(answer))) << recording.name;
    EXPECT_EQ(answer.nc.empty(), IsToken(Send(answer))) << recording.name;
  }
}

TEST_F(SecurityProviderHttp, RecordedResponsesDoNotFitAnotherPassword) {
  ASSERT_EQ(0,
            Provider().ModifyUsers(support::UsersJson({support::UserJson("alice", "another", 8)})));
  for (const Recording& recording : Recordings()) {
    EXPECT_EQ("NO_TOKEN", Send(AnswerOf(recording))) << recording.name;
  }
}

// Published examples.
class DigestVectors : public testing::Test {
 protected:
  DigestVectors() {
    std::ifstream stream(std::string(TEST_DATA_DIR) + "/digest/vectors.json");
    json::Reader::Read(vectors_, stream);
  }

  static std::string Text(const json::Object& vector, const char* name) {
    const json::UnknownElement* member = json::FindMember(vector, name);
    return member == nullptr ? "" : tevra::core::JsonUtils::AsString(*member);
  }
  static bool Flag(const json::Object& vector, const char* name) {
    return json::Member(vector, name).get<json::Boolean>();
  }

  json::Array vectors_;
};

TEST_F(DigestVectors, HttpExamplesFollowFromTheirFields) {
  int checked = 0;
  for (const json::UnknownElement& element : vectors_) {
    const auto& vector = element.get_ref<const json::Object&>();
    if (Text(vector, "kind") != "http-digest" || Text(vector, "alg") != "md5") continue;
    const std::string name = Text(vector, "name");
    const std::string ha1 = User::MD5sum(Text(vector, "username") + ":" + Text(vector, "realm") +
                                         ":" + Text(vector, "password"));
    EXPECT_EQ(Text(vector, "ha1"), ha1) << name;
    std::string a2 = Text(vector, "method") + ":" + Text(vector, "uri");
    if (Text(vector, "qop") == "auth-int") a2 += ":" + Text(vector, "body_hash");
    EXPECT_EQ(Text(vector, "ha2"), User::MD5sum(a2)) << name;
    Answer answer;
    answer.nonce = Text(vector, "nonce");
    answer.ha2 = User::MD5sum(a2);
    answer.sess = Flag(vector, "sess");
    answer.qop = Text(vector, "qop");
    answer.cnonce = Text(vector, "cnonce");
    answer.nc = Text(vector, "nc");
    EXPECT_EQ(Text(vector, "response"), Response(ha1, answer)) << name;
    EXPECT_EQ(Flag(vector, "match"), Text(vector, "published") == Response(ha1, answer)) << name;
    ++checked;
  }
  EXPECT_EQ(10, checked);
}

TEST_F(DigestVectors, StoredDigestIsThePublishedOne) {
  int checked = 0;
  for (const json::UnknownElement& element : vectors_) {
    const auto& vector = element.get_ref<const json::Object&>();
    if (Text(vector, "kind") != "ha1") continue;
    EXPECT_EQ(kAliceHa1, Text(vector, "value"));
    EXPECT_EQ(kAliceHa1, User::MD5sum("alice:Varno:secret"));
    ++checked;
  }
  EXPECT_EQ(1, checked);
}

}  // namespace
}  // namespace vigila::server

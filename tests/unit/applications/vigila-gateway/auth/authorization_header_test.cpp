#include "vigila-gateway/auth/authorization_header.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

using vigila::gateway::AuthorizationHeader;
using vigila::gateway::BasicAnswer;
using vigila::gateway::DigestAnswer;
using vigila::gateway::kMaximumAuthorizationBytes;
using vigila::gateway::ParseAuthorization;
using vigila::gateway::UnusableAnswer;

constexpr char kResponse[] = "0123456789abcdef0123456789abcdef";

std::string Digest(const std::string& more) {
  return std::string(
             "Digest username=\"u\", realm=\"Varno\", nonce=\"n\", uri=\"/x\", response=\"") +
         kResponse + "\"" + more;
}
const DigestAnswer* AsDigest(const AuthorizationHeader& header) {
  return std::get_if<DigestAnswer>(&header);
}
bool IsMalformed(const std::string& value) {
  const AuthorizationHeader header = ParseAuthorization(value);
  const auto* unusable = std::get_if<UnusableAnswer>(&header);
  return unusable != nullptr && *unusable == UnusableAnswer::kMalformed;
}
bool IsNotOurs(const std::string& value) {
  const AuthorizationHeader header = ParseAuthorization(value);
  const auto* unusable = std::get_if<UnusableAnswer>(&header);
  return unusable != nullptr && *unusable == UnusableAnswer::kNotOurs;
}

TEST(AuthorizationHeader, ReadsTheFormWithQop) {
  const auto header = ParseAuthorization(Digest(", qop=auth, nc=00000001, cnonce=\"c\""));
  const DigestAnswer* answer = AsDigest(header);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->username, "u");
  EXPECT_EQ(answer->nonce, "n");
  EXPECT_EQ(answer->uri, "/x");
  EXPECT_EQ(answer->response, kResponse);
  EXPECT_EQ(answer->qop, "auth");
  EXPECT_EQ(answer->nc, "00000001");
  EXPECT_EQ(answer->cnonce, "c");
  EXPECT_FALSE(answer->sess);
}

TEST(AuthorizationHeader, ReadsTheFormWithoutQop) {
  const auto header = ParseAuthorization(Digest(""));
  const DigestAnswer* answer = AsDigest(header);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->qop, "");
  EXPECT_EQ(answer->nc, "");
  EXPECT_EQ(answer->cnonce, "");
}

TEST(AuthorizationHeader, LeavesACountAsideThatNoQopProtects) {
  const auto header = ParseAuthorization(Digest(", nc=00000007, cnonce=\"c\""));
  const DigestAnswer* answer = AsDigest(header);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->nc, "");
  EXPECT_EQ(answer->cnonce, "");
}

TEST(AuthorizationHeader, ReadsTheSessionForm) {
  const auto header =
      ParseAuthorization(Digest(", algorithm=MD5-sess, qop=\"auth\", nc=0000000a, cnonce=\"c\""));
  ASSERT_NE(AsDigest(header), nullptr);
  EXPECT_TRUE(AsDigest(header)->sess);
  const auto bare = ParseAuthorization(Digest(", algorithm=\"md5-SESS\", cnonce=c"));
  ASSERT_NE(AsDigest(bare), nullptr);
  EXPECT_TRUE(AsDigest(bare)->sess);
  EXPECT_EQ(AsDigest(bare)->cnonce, "c");
  EXPECT_TRUE(IsMalformed(Digest(", algorithm=MD5-sess")));
}

TEST(AuthorizationHeader, TakesAnyOrderAndCaseQuotedOrBare) {
  const auto header = ParseAuthorization(
      std::string("dIGEST\tNC=\"0000000A\",CNonce=c,QOP=\"AUTH\" , Response=") + kResponse +
      ",URI=\"/x\",Nonce=n,REALM=\"Varno\",UserName=u,algorithm=\"MD5\",opaque=\"o\",,");
  const DigestAnswer* answer = AsDigest(header);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->nc, "0000000A");
  EXPECT_EQ(answer->qop, "auth");
  EXPECT_EQ(answer->username, "u");
}

TEST(AuthorizationHeader, UndoesEscapesAndKeepsEveryByteOfAName) {
  const auto header = ParseAuthorization(
      std::string("Digest username=\"a\\\"b\\\\c,\xff\xe4\", realm=\"Varno\", nonce=\"n\", "
                  "uri=\"/x\", response=\"") +
      kResponse + "\"");
  ASSERT_NE(AsDigest(header), nullptr);
  EXPECT_EQ(AsDigest(header)->username, "a\"b\\c,\xff\xe4");
}

// The field for the user's name is given whole.
std::string Named(const std::string& field) {
  return "Digest " + field + ", realm=\"Varno\", nonce=\"n\", uri=\"/x\", response=\"" + kResponse +
         "\"";
}

TEST(AuthorizationHeader, UnderstandsTheExtendedFormOfAName) {
  const std::pair<const char*, const char*> forms[] = {
      {"username*=UTF-8''view", "view"},
      {"username*=utf-8'de'J%C3%A4ger%20%26%20Sohn", "J\u00e4ger & Sohn"},
      {"USERNAME*=UTF-8''%F0%9F%93%B7%27%25", "\U0001F4F7'%"},
      {"username*=\"UTF-8''J%c3%a4ger\"", "J\u00e4ger"},
      {"username*=UTF-8''", ""},
  };
  for (const auto& [field, name] : forms) {
    const auto header = ParseAuthorization(Named(field));
    ASSERT_NE(AsDigest(header), nullptr) << field;
    EXPECT_EQ(AsDigest(header)->username, name) << field;
  }
}

TEST(AuthorizationHeader, RefusesABrokenExtendedName) {
  for (const char* field :
       {"username*=view", "username*=UTF-8'view", "username*=''view", "username*=ISO-8859-1''%E4",
        "username*=UTF-8''%E4", "username*=UTF-8''%C3", "username*=UTF-8''%4",
        "username*=UTF-8''%zz", "username*=UTF-8''a%00b", "username*=UTF-8''a%0Ab",
        "username*=UTF-8''%7F", "username*=", "username*=UTF-8''%C0%80"}) {
    EXPECT_TRUE(IsMalformed(Named(field))) << field;
  }
}

TEST(AuthorizationHeader, RefusesDuplicates) {
  EXPECT_TRUE(IsMalformed(Digest(", username=\"v\"")));
  EXPECT_TRUE(IsMalformed(Digest(", URI=\"/y\"")));
  EXPECT_TRUE(IsMalformed(Digest(", x=1, X=1")));
}

TEST(AuthorizationHeader, RefusesMissingAndEmptyFields) {
  for (const char* missing : {"username", "realm", "nonce", "uri", "response"}) {
    std::string value = Digest("");
    const size_t at = value.find(missing);
    value.replace(at, std::string(missing).size(), "unknown");
    EXPECT_TRUE(IsMalformed(value)) << missing;
  }
  EXPECT_TRUE(
      IsMalformed("Digest username=\"u\", realm=\"Varno\", nonce=\"\", uri=\"/x\", "
                  "response=\"0123456789abcdef0123456789abcdef\""));
  EXPECT_TRUE(
      IsMalformed("Digest username=\"u\", realm=\"Varno\", nonce=\"n\", uri=\"\", "
                  "response=\"0123456789abcdef0123456789abcdef\""));
  EXPECT_TRUE(IsMalformed(Digest(", qop=auth, nc=00000001")));
  EXPECT_TRUE(IsMalformed(Digest(", qop=auth, cnonce=\"c\"")));
  EXPECT_TRUE(IsMalformed(Digest(", qop=auth, nc=00000001, cnonce=\"\"")));
}

TEST(AuthorizationHeader, RefusesAResponseOfTheWrongLength) {
  for (const std::string response :
       {"", "0123456789abcdef0123456789abcde", "0123456789abcdef0123456789abcdef0",
        "0123456789abcdef0123456789abcdeg"}) {
    EXPECT_TRUE(
        IsMalformed("Digest username=\"u\", realm=\"Varno\", nonce=\"n\", uri=\"/x\", "
                    "response=\"" +
                    response + "\""))
        << response;
  }
}

TEST(AuthorizationHeader, LeavesUpperCaseDigitsToTheServiceToRefuse) {
  const auto header = ParseAuthorization(
      "Digest username=\"u\", realm=\"Varno\", nonce=\"n\", uri=\"/x\", "
      "response=\"0123456789ABCDEF0123456789ABCDEF\"");
  ASSERT_NE(AsDigest(header), nullptr);
  EXPECT_EQ(AsDigest(header)->response, "0123456789ABCDEF0123456789ABCDEF");
}

TEST(AuthorizationHeader, RefusesCountsThatAreNotEightHexDigits) {
  for (const std::string nc : {"0", "-1", "ffffffffffffffffff", "zz", "0000001", "000000001",
                               "0x000001", "0000000g", "\" 0000001\""}) {
    EXPECT_TRUE(IsMalformed(Digest(", qop=auth, cnonce=\"c\", nc=" + nc))) << nc;
  }
  for (const std::string nc : {"00000000", "ffffffff"}) {
    EXPECT_NE(AsDigest(ParseAuthorization(Digest(", qop=auth, cnonce=\"c\", nc=" + nc))), nullptr);
  }
}

TEST(AuthorizationHeader, RefusesBrokenSyntax) {
  for (const char* value : {"",
                            " ",
                            "Digest",
                            "Digest ",
                            "Digest ,",
                            "Digest username",
                            "Digest username=",
                            "Digest =\"u\"",
                            "Digest username=\"u",
                            "Digest username=\"u\\",
                            "Digest username=\"u\" x",
                            "Digest username=\"u\";realm=\"Varno\"",
                            "Digest username=\"a\nb\"",
                            "Digest user name=u",
                            "Basic",
                            "Basic !",
                            "Basic dQ",
                            "Basic dTpw=",
                            "Basic ====",
                            "Basic dTp=",
                            "Basic dTpx dTpx"}) {
    EXPECT_TRUE(IsMalformed(value)) << value;
  }
}

TEST(AuthorizationHeader, RefusesZeroBytes) {
  std::string value = Digest("");
  value[value.find("u\"")] = '\0';
  EXPECT_TRUE(IsMalformed(value));
}

TEST(AuthorizationHeader, IsBoundedInLengthAndNumberOfParameters) {
  const std::string start = Digest(", x=\"");
  const std::string fitting =
      start + std::string(kMaximumAuthorizationBytes - start.size() - 1, 'a') + "\"";
  EXPECT_NE(AsDigest(ParseAuthorization(fitting)), nullptr);
  EXPECT_TRUE(IsMalformed(fitting + " "));
  std::string many;
  for (int i = 0; i < 28; ++i) many += ", x" + std::to_string(i) + "=1";
  EXPECT_TRUE(IsMalformed(Digest(many)));
}

TEST(AuthorizationHeader, KnowsWhatWasNotOffered) {
  for (const char* more :
       {", algorithm=SHA-256", ", algorithm=MD5x", ", algorithm=\"\"", ", qop=auth-int",
        ", qop=\"auth,auth-int\"", ", qop=\"\"", ", userhash=true", ", username*=UTF-8''u"}) {
    EXPECT_TRUE(IsNotOurs(Digest(more))) << more;
  }
  EXPECT_TRUE(IsNotOurs("Bearer abc"));
  EXPECT_TRUE(IsNotOurs("Negotiate"));
  std::string other_realm = Digest("");
  other_realm.replace(other_realm.find("Varno"), 5, "varno");
  EXPECT_TRUE(IsNotOurs(other_realm));
  EXPECT_NE(AsDigest(ParseAuthorization(Digest(", userhash=false"))), nullptr);
}

TEST(AuthorizationHeader, ReadsBasicToTheFirstColon) {
  const auto header = ParseAuthorization("bAsIc  dTpwOnE= ");
  const auto* basic = std::get_if<BasicAnswer>(&header);
  ASSERT_NE(basic, nullptr);
  EXPECT_EQ(basic->username, "u");
  EXPECT_EQ(basic->password.Text(), "p:q");
  EXPECT_TRUE(IsMalformed("Basic dXA="));      // no colon
  EXPECT_TRUE(IsMalformed("Basic dTpwOnF="));  // bits under the padding
}

TEST(AuthorizationHeader, ReadsWhatRealClientsSend) {
  int read = 0;
  for (const auto& file :
       std::filesystem::directory_iterator(std::string(TEST_DATA_DIR) + "/digest/requests")) {
    std::ifstream stream(file.path());
    std::string line;
    while (std::getline(stream, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.rfind("Authorization: ", 0) != 0 && line.rfind("authorization: ", 0) != 0) continue;
      const auto header = ParseAuthorization(line.substr(15));
      ASSERT_NE(AsDigest(header), nullptr) << file.path();
      EXPECT_EQ(AsDigest(header)->username, "alice");
      EXPECT_EQ(AsDigest(header)->nonce.size(), 32u);
      ++read;
    }
  }
  EXPECT_EQ(read, 21);
}

}  // namespace

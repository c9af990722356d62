#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "krand/base64/base64.h"
#include "support/temp_dir.h"
#include "tevra/crypto/gcrypt_digest.h"
#include "tevra/osa/time.h"
#include "vigilactl/commands.h"

namespace vigilactl {
namespace {

using krand::lib::Base64;
using tevra::osa::DateTime;
using tevra::osa::TimeStruct;

constexpr char kNonce[] = "bm9uY2U=";
constexpr char kDigestType[] =
    "http://docs.oasis-open.org/wss/2004/01/"
    "oasis-200401-wss-username-token-profile-1.0#PasswordDigest";

std::string TimeText(int64_t seconds_off) {
  TimeStruct time(true);
  time += seconds_off * 1000000;
  return DateTime(time).ToString(0);
}

std::string Digest(const std::string& created) {
  const std::string text = Base64::Decode(kNonce) + created + "secret";
  tevra::crypto::GCryptDigest sha(tevra::crypto::GCryptDigest::kSha1);
  sha.Update(text.data(), text.size());
  return Base64::Encode(std::string(reinterpret_cast<const char*>(sha.Digest()), sha.DigestSize()));
}

// The parts of an envelope that a test wants different.
struct Parts {
  std::string username = "<Username>alice</Username>";
  std::string created = TimeText(0);
  std::string digest = Digest(created);
  std::string type = kDigestType;
  std::string nonce = kNonce;
  std::string behind_token;

  std::string Envelope() const {
    return "<Envelope>\n<Header><Security><UsernameToken>" + username + "<Password Type=\"" + type +
           "\">" + digest + "</Password><Nonce>" + nonce + "</Nonce><Created>" + created +
           "</Created></UsernameToken>" + behind_token + "</Security></Header><Body/></Envelope>";
  }
};

class WsseCheck : public testing::Test {
 protected:
  ExitCode Run(const std::vector<std::string>& arguments, bool json = false) {
    out_.str("");
    err_.str("");
    Invocation invocation(out_, err_);
    invocation.json = json;
    CLI::App app;
    AddWsseCheckCommand(app, invocation);
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    reversed.push_back("wsse-check");
    app.parse(reversed);
    return invocation.Run();
  }
  ExitCode Check(const std::string& envelope, bool json = false) {
    return Run({dir_.Write("envelope.xml", envelope)}, json);
  }
  // The one reason for which a logon with the envelope would fail.
  std::string Reason(const std::string& envelope) {
    EXPECT_EQ(Check(envelope), kRefused) << out_.str();
    const std::string head = "A logon with this envelope fails:\n  ";
    const size_t at = out_.str().find(head);
    return at == std::string::npos ? out_.str() : out_.str().substr(at + head.size());
  }

  const support::TempDir dir_;
  std::ostringstream out_, err_;
};

TEST_F(WsseCheck, ShowsWhatItReadAndFindsNothingWrong) {
  const Parts parts;
  const std::string envelope = parts.Envelope();
  const size_t read = envelope.find("</Security>") + 11;
  EXPECT_EQ(Check(envelope), kDone) << out_.str();
  EXPECT_EQ(out_.str(), "Username  alice\nPassword  " + parts.digest + "\nType      " +
                            kDigestType + "\nNonce     bm9uY2U=\nCreated   " + parts.created +
                            "\nRead      " + std::to_string(read) + " of " +
                            std::to_string(envelope.size()) +
                            " bytes\nNothing in this envelope makes a logon fail.\n");
  EXPECT_EQ(err_.str(),
            "vigilactl: note: not checked: the account, its password (--password-stdin), and "
            "whether the nonce was used before\n");
}

TEST_F(WsseCheck, AnswersInJson) {
  const Parts parts;
  EXPECT_EQ(Check(parts.Envelope(), true), kDone);
  EXPECT_EQ(out_.str().rfind("{\"Username\":\"alice\",\"Password\":\"" + parts.digest + "\"", 0),
            0u)
      << out_.str();
  EXPECT_NE(out_.str().find(",\"Reasons\":[]}\n"), std::string::npos) << out_.str();
  EXPECT_EQ(err_.str(), "");
  EXPECT_EQ(Check("<Envelope>", true), kRefused);
  EXPECT_EQ(out_.str(),
            "{\"Username\":null,\"Password\":null,\"Type\":null,\"Nonce\":null,\"Created\":null,"
            "\"Bytes\":10,\"BytesRead\":10,\"Reasons\":[\"No end of a security header was found.\","
            "\"No Username was found in a UsernameToken.\","
            "\"No Password was found in a UsernameToken.\","
            "\"No Nonce was found in a UsernameToken.\","
            "\"No Created was found in a UsernameToken.\"]}\n");
}

TEST_F(WsseCheck, NamesEveryValueThatCannotServe) {
  Parts parts;
  parts.created = TimeText(-310);
  EXPECT_NE(
      Reason(parts.Envelope()).find(" seconds behind this machine's clock; 300 are allowed.\n"),
      std::string::npos)
      << out_.str();
  parts.created = TimeText(400);
  EXPECT_NE(Reason(parts.Envelope()).find(" seconds ahead of this machine's clock; 300 are"),
            std::string::npos)
      << out_.str();
  parts.created = "9999-12-31T23:59:59Z";
  EXPECT_EQ(Check(parts.Envelope()), kRefused);
  parts.created = "yesterday";
  EXPECT_EQ(Reason(parts.Envelope()), "The creation time is not an ISO 8601 date and time.\n");
  parts = Parts();
  parts.nonce = "bm9uY2V=";
  EXPECT_EQ(Reason(parts.Envelope()), "The nonce is not base64 in its one spelling.\n");
  parts = Parts();
  parts.username = "<Username>nobody</Username>";
  EXPECT_EQ(Reason(parts.Envelope()), "The account \"nobody\" cannot log on.\n");
  parts.username = "<Username>a&amp;b</Username>";
  EXPECT_EQ(Reason(parts.Envelope()), "The user name holds an \"&\": entities are not decoded.\n");
  parts.username = "<Username></Username>";
  EXPECT_EQ(Reason(parts.Envelope()), "No Username was found in a UsernameToken.\n");
  parts = Parts();
  parts.created = TimeText(-290);
  EXPECT_EQ(Check(parts.Envelope()), kDone);
}

TEST_F(WsseCheck, TakesAPasswordWithoutATypeForOneInClear) {
  std::string envelope = Parts().Envelope();
  const std::string type = std::string(" Type=\"") + kDigestType + "\"";
  envelope.erase(envelope.find(type), type.size());
  EXPECT_EQ(Check(envelope), kRefused);
  EXPECT_NE(out_.str().find("The password is not of the type PasswordDigest."), std::string::npos)
      << out_.str();
}

TEST_F(WsseCheck, DoesNotRepeatAPasswordInClear) {
  Parts parts;
  parts.digest = "my secret";
  parts.type = "urn:x#PasswordText";
  for (const bool json : {false, true}) {
    EXPECT_EQ(Check(parts.Envelope(), json), kRefused);
    EXPECT_EQ(out_.str().find("my secret"), std::string::npos) << out_.str();
    EXPECT_NE(out_.str().find("(not shown: no digest)"), std::string::npos) << out_.str();
    EXPECT_NE(out_.str().find("The password is not of the type PasswordDigest."),
              std::string::npos);
    EXPECT_NE(out_.str().find("The password is not the base64 form of a SHA-1 digest."),
              std::string::npos);
  }
}

TEST_F(WsseCheck, TellsWhereTheReaderStopped) {
  EXPECT_EQ(Check("<?xml version=\"1.0\"?>\n<Envelope a='1'>"), kRefused);
  EXPECT_NE(out_.str().find("  The reader stopped at byte 35, line 2, at the end of \"<?xml "
                            "version=\"1.0\"?>\\x0a<Envelope a='\": that is malformed, too long or "
                            "there twice.\n  Attribute values need double quotes there.\n"),
            std::string::npos)
      << out_.str();
  Parts parts;
  parts.behind_token = "<UsernameToken><Nonce>second</Nonce></UsernameToken>";
  EXPECT_NE(Reason(parts.Envelope()).find("<UsernameToken><Nonce>second<\": that is"),
            std::string::npos)
      << out_.str();
  parts = Parts();
  parts.username = "<Username>" + std::string(256, 'u') + "</Username>";
  EXPECT_NE(Reason(parts.Envelope()).find("uuuu<\": that is"), std::string::npos) << out_.str();
}

TEST_F(WsseCheck, KnowsTheUsualCauses) {
  const auto says = [this](const std::string& envelope, const std::string& sentence) {
    EXPECT_EQ(Check(envelope), kRefused);
    EXPECT_NE(out_.str().find("  " + sentence + "\n"), std::string::npos) << out_.str();
  };
  says("", "No Envelope element was found.");
  says("<Body/>", "No Envelope element was found.");
  says("\xEF\xBB\xBF" + Parts().Envelope(), "A byte order mark at the front stops the reader.");
  Parts parts;
  parts.username = "<Username><![CDATA[alice]]></Username>";
  says(parts.Envelope(), "A CDATA section is not decoded and hides what follows it.");
  parts.username = "<!-- x --><Username>alice</Username>";
  says(parts.Envelope(), "A comment is taken for an element that has no end.");
  // One that does no harm is not blamed.
  parts = Parts();
  EXPECT_EQ(Check("<!-- x -->" + parts.Envelope()), kDone) << out_.str();
  EXPECT_EQ(Check(parts.Envelope() + "<!-- x -->"), kDone) << out_.str();
}

TEST_F(WsseCheck, ShowsNothingThatSteersATerminal) {
  Parts parts;
  parts.username = "<Username>\x1b[2Jalice</Username>";
  EXPECT_EQ(Check(parts.Envelope()), kDone);
  EXPECT_NE(out_.str().find("Username  \\x1b[2Jalice\n"), std::string::npos) << out_.str();
}

TEST_F(WsseCheck, CallsAFileThatCannotBeReadWrongUsage) {
  for (const std::string& file : {dir_.File("missing"), dir_.Path()}) {
    EXPECT_EQ(Run({file}), kUsage);
    EXPECT_EQ(err_.str(), "vigilactl: cannot read " + file + "\n");
    EXPECT_EQ(out_.str(), "");
  }
  EXPECT_EQ(Run({"-", "--password-stdin"}), kUsage);
  const std::string large = dir_.Write("large", std::string((16 << 20) + 1, ' '));
  EXPECT_EQ(Run({large}), kUsage);
  EXPECT_EQ(err_.str(), "vigilactl: " + large + " is too long for an envelope\n");
}

}  // namespace
}  // namespace vigilactl

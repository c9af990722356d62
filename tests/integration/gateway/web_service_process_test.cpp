// The web-service door of a whole gateway: real digests, a real daemon behind it.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "support/gateway_process.h"
#include "support/http_connection.h"

namespace {

using support::Finished;
using support::GatewayFixture;
using support::ProgramOptions;
using support::RunProgram;

constexpr char kSoap11[] = "text/xml; charset=utf-8";
constexpr char kSoap12[] = "application/soap+xml; charset=utf-8";

std::string Base64(const std::string& bytes) {
  std::string text(bytes.size() / 3 * 4 + 5, '\0');
  const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                   reinterpret_cast<const unsigned char*>(bytes.data()),
                                   static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(size));
  return text;
}

std::string TimeText(std::time_t time) {
  std::tm utc = {};
  gmtime_r(&time, &utc);
  char text[32];
  return std::string(text, std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc));
}

// Sent by no one before: every one has a nonce of its own.
std::string Envelope(const std::string& user, const std::string& password, int seconds_off = 0) {
  static int sent = 0;
  const std::string nonce = "nonce " + std::to_string(++sent);
  const std::string created = TimeText(std::time(nullptr) + seconds_off);
  const std::string text = nonce + created + password;
  unsigned char sha[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), sha);
  const std::string digest(reinterpret_cast<const char*>(sha), sizeof(sha));
  return "<?xml version=\"1.0\"?>\n<s:Envelope xmlns:s=\"urn:s\"><s:Header><w:Security>"
         "<w:UsernameToken><w:Username>" +
         user + "</w:Username><w:Password Type=\"urn:x#PasswordDigest\">" + Base64(digest) +
         "</w:Password><w:Nonce>" + Base64(nonce) + "</w:Nonce><w:Created>" + created +
         "</w:Created></w:UsernameToken></w:Security></s:Header><s:Body/></s:Envelope>";
}

class AWebServiceDoor : public testing::Test {
 protected:
  void Start(const std::vector<std::string>& options = {}) {
    ASSERT_TRUE(fixture_.Start(options)) << fixture_.device.Log() << fixture_.gateway.Log();
  }
  // The status in front of the body.
  std::string Post(const std::string& envelope, const char* type = kSoap12,
                   std::vector<std::string> more = {}) const {
    std::vector<std::string> argv = {"/usr/bin/curl", "-s", "-m", "20", "-w", "%{http_code}"};
    argv.insert(argv.end(), {"-H", std::string("Content-Type: ") + type, "-o", Body()});
    argv.insert(argv.end(), {"--data-binary", "@-"});
    argv.insert(argv.end(), more.begin(), more.end());
    argv.push_back(fixture_.gateway.Url() + "/onvif/device");
    ProgramOptions options;
    options.input = envelope;
    const Finished end = RunProgram(argv, options);
    return end.out + " " + fixture_.gateway.Dir().Read("body");
  }
  static std::string StatusOf(const std::string& answer) { return answer.substr(0, 3); }
  std::string Body() const { return fixture_.gateway.Dir().File("body"); }

  GatewayFixture fixture_;
};

TEST_F(AWebServiceDoor, LetsInWithTheRightPasswordOnly) {
  Start({"--device-name", "north gate"});
  for (const char* type : {kSoap11, kSoap12}) {
    const std::string right = Post(Envelope("view", "view's secret"), type);
    EXPECT_EQ(StatusOf(right), "200") << right;
    EXPECT_NE(right.find("<d:Name>north gate</d:Name>"), std::string::npos) << right;
  }
  const std::string wrong11 = Post(Envelope("view", "wrong"), kSoap11);
  EXPECT_EQ(StatusOf(wrong11), "500");
  EXPECT_NE(wrong11.find("<faultcode>wsse:FailedAuthentication</faultcode>"), std::string::npos);
  const std::string wrong12 = Post(Envelope("view", "wrong"), kSoap12);
  EXPECT_EQ(StatusOf(wrong12), "400");
  EXPECT_NE(wrong12.find("<env:Value>wsse:FailedAuthentication</env:Value>"), std::string::npos);
  for (const char* stranger : {"stranger", "nobody"}) {
    EXPECT_EQ(StatusOf(Post(Envelope(stranger, ""), kSoap11)), "500") << stranger;
  }
}

TEST_F(AWebServiceDoor, RefusesAReplayAndAStaleTime) {
  Start();
  const std::string envelope = Envelope("view", "view's secret");
  EXPECT_EQ(StatusOf(Post(envelope)), "200");
  EXPECT_NE(Post(envelope).find("wsse:FailedAuthentication"), std::string::npos);
  EXPECT_EQ(StatusOf(Post(Envelope("view", "view's secret", -280))), "200");
  EXPECT_EQ(StatusOf(Post(Envelope("view", "view's secret", 280))), "200");
  for (const int off : {-320, 320}) {
    EXPECT_NE(Post(Envelope("view", "view's secret", off)).find("wsse:FailedAuthentication"),
              std::string::npos)
        << off;
  }
}

class AWebServiceConnection {
 public:
  explicit AWebServiceConnection(const std::string& host_and_port) : connection_(host_and_port) {}
  std::string StatusOf(const std::string& envelope) {
    const std::string answer = connection_.Ask(
        std::string("POST /onvif/device HTTP/1.1\r\nHost: x\r\nContent-Type: ") + kSoap12 +
        "\r\nContent-Length: " + std::to_string(envelope.size()) + "\r\n\r\n" + envelope);
    return answer.size() < 12 ? "none" : answer.substr(9, 3);
  }
  // Asks so many times without credentials; true when all were refused.
  bool RefusesStrangers(int count) {
    constexpr int kAtOnce = 50;
    bool refused = true;
    for (int sent = 0; sent < count; sent += kAtOnce) {
      for (int i = 0; i < kAtOnce; ++i) {
        connection_.Send("GET /jpeg/1 HTTP/1.1\r\nHost: x\r\n\r\n");
      }
      for (int i = 0; i < kAtOnce; ++i) refused &= connection_.Receive().find(" 401 ") == 8;
    }
    return refused;
  }

 private:
  support::HttpConnection connection_;
};

TEST_F(AWebServiceDoor, RefusesAReplayHoweverManyHaveComeSince) {
  Start();
  AWebServiceConnection connection(fixture_.gateway.HostAndPort());
  const std::string envelope = Envelope("view", "view's secret");
  EXPECT_EQ(connection.StatusOf(envelope), "200");
  EXPECT_TRUE(connection.RefusesStrangers(10000));
  EXPECT_EQ(connection.StatusOf(envelope), "400");
  // Twice as many as the service remembers.
  for (int i = 0; i < 2000; ++i) {
    ASSERT_EQ(connection.StatusOf(Envelope("admin", "admin's secret")), "200") << i;
  }
  EXPECT_EQ(connection.StatusOf(envelope), "400");
  EXPECT_EQ(connection.StatusOf(Envelope("view", "view's secret")), "200");
}

TEST_F(AWebServiceDoor, RefusesAReplayAfterARestartOfTheService) {
  Start();
  const std::string envelope = Envelope("view", "view's secret");
  EXPECT_EQ(StatusOf(Post(envelope)), "200");
  fixture_.device.Stop(SIGKILL);
  ASSERT_EQ(fixture_.device.LaunchAndAwaitReady(), support::DaemonProcess::Start::kReady);
  EXPECT_EQ(StatusOf(Post(envelope)), "400");
  EXPECT_EQ(StatusOf(Post(Envelope("view", "view's secret"))), "200");
}

TEST_F(AWebServiceDoor, TakesEnvelopesInChunksAndRefusesTheMalformedAndTheLarge) {
  Start({"--max-body", "2000000"});
  const std::string padded = Envelope("view", "view's secret") + std::string(1900000, '<');
  EXPECT_EQ(StatusOf(Post(padded, kSoap12, {"-H", "Transfer-Encoding: chunked"})), "200");
  const std::string cut = Envelope("view", "view's secret");
  EXPECT_EQ(StatusOf(Post(cut.substr(0, cut.find("</w:Security>")), kSoap11)), "400");
  EXPECT_EQ(StatusOf(Post("{\"user\":\"view\"}", kSoap11)), "400");
  const std::string large = Envelope("view", "view's secret") + std::string(2000000, '<');
  for (const std::vector<std::string>& how :
       {std::vector<std::string>{}, {"-H", "Transfer-Encoding: chunked"}}) {
    const std::string answer = Post(large, kSoap11, how);
    EXPECT_EQ(StatusOf(answer), "413");
    EXPECT_NE(answer.find("<faultcode>env:Client</faultcode>"), std::string::npos) << answer;
  }
}

TEST_F(AWebServiceDoor, IsUnavailableWithoutItsServiceAndComesBackWithIt) {
  Start();
  fixture_.device.Stop(SIGKILL);
  const std::string answer = Post(Envelope("view", "view's secret"));
  EXPECT_EQ(StatusOf(answer), "503");
  EXPECT_NE(answer.find("<env:Value>env:Receiver</env:Value>"), std::string::npos) << answer;
  ASSERT_EQ(fixture_.device.LaunchAndAwaitReady(), support::DaemonProcess::Start::kReady);
  EXPECT_EQ(StatusOf(Post(Envelope("view", "view's secret"))), "200");
}

TEST_F(AWebServiceDoor, LocksAnAccountThatIsGuessedAtAndNoOther) {
  fixture_.device.Set("Applications/vigila", "password_policy", "true");
  Start();
  EXPECT_EQ(StatusOf(Post(Envelope("view", "view's secret"))), "200");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(StatusOf(Post(Envelope("view", "wrong"))), "400");
  const std::string locked = Post(Envelope("view", "view's secret"));
  EXPECT_EQ(StatusOf(locked), "400");
  EXPECT_NE(locked.find("wsse:FailedAuthentication"), std::string::npos);
  EXPECT_EQ(fixture_.device.CtlWithSecret("view's secret", {"login", "view"}).exit_code, 1);
  EXPECT_EQ(StatusOf(Post(Envelope("admin", "admin's secret"))), "200");
  EXPECT_NE(
      fixture_.device.Log().find("User account 'view' is disabled; too many invalid passwords."),
      std::string::npos);
}

TEST_F(AWebServiceDoor, PutsOffAnAddressThatGuesses) {
  Start({"--throttle-burst", "2"});
  for (int i = 0; i < 2; ++i) EXPECT_EQ(StatusOf(Post(Envelope("view", "wrong"))), "400");
  const std::string answer = Post(Envelope("view", "view's secret"));
  EXPECT_EQ(StatusOf(answer), "429");
  EXPECT_NE(answer.find("env:Fault"), std::string::npos) << answer;
  // The other doors are shut to that address as well.
  const Finished site =
      RunProgram({"/usr/bin/curl", "-s", "-o", "/dev/null", "-w", "%{http_code}", "--digest", "-u",
                  "view:view's secret", fixture_.gateway.Url() + "/jpeg/1"});
  EXPECT_EQ(site.out, "429");
}

}  // namespace

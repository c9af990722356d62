#include "support/gateway_process.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/http_connection.h"
#include "vigila-gateway/auth/digest.h"

namespace {

using support::Fd;
using support::Finished;
using support::GatewayFixture;
using support::RunProgram;
using vigila::gateway::RequestDigest;

constexpr char kCurl[] = "/usr/bin/curl";

class AGatewayProcess : public testing::Test {
 protected:
  void SetUp() override {
    Configure(fixture_.device);
    ASSERT_TRUE(fixture_.Start(Options())) << fixture_.device.Log() << fixture_.gateway.Log();
  }
  virtual std::vector<std::string> Options() const { return {}; }
  virtual void Configure(support::DaemonProcess&) const {}

  std::string UrlOf(const std::string& target) const { return fixture_.gateway.Url() + target; }
  // The final status, and with "-i" among the arguments all that came.
  Finished Curl(std::vector<std::string> arguments, const std::string& target) const {
    arguments.insert(arguments.begin(), {kCurl, "-s", "--path-as-is", "-m", "20"});
    arguments.push_back(UrlOf(target));
    return RunProgram(arguments);
  }
  std::string Status(std::vector<std::string> arguments, const std::string& target) const {
    arguments.insert(arguments.end(), {"-o", "/dev/null", "-w", "%{http_code}"});
    return Curl(std::move(arguments), target).out;
  }
  static std::vector<std::string> As(const std::string& name,
                                     const std::string& form = "--digest") {
    return {form, "-u", name + ":" + name + "'s secret"};
  }
  Fd Connect() const { return support::ConnectTo(fixture_.gateway.HostAndPort()); }
  // Sends the bytes over one connection and returns what comes until its end.
  std::string Raw(const std::string& bytes) const {
    const Fd socket_fd = Connect();
    send(socket_fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    shutdown(socket_fd.Get(), SHUT_WR);
    std::string answer;
    char buffer[4096];
    ssize_t n = 0;
    while ((n = recv(socket_fd.Get(), buffer, sizeof(buffer), 0)) > 0) {
      answer.append(buffer, static_cast<size_t>(n));
    }
    return answer;
  }

  GatewayFixture fixture_;
};

TEST_F(AGatewayProcess, GivesCurlItsPictureAfterADigestLogon) {
  const Finished open = Curl({"-i"}, "/jpeg/1");
  EXPECT_EQ(open.out.rfind("HTTP/1.1 401 ", 0), 0u) << open.out;
  EXPECT_NE(open.out.find("WWW-Authenticate: Digest realm=\"Varno\", nonce=\""), std::string::npos);
  EXPECT_NE(open.out.find("\", qop=\"auth\", algorithm=MD5\r\n"), std::string::npos);
  const Finished picture = Curl(As("view"), "/jpeg/1");
  EXPECT_EQ(picture.out.substr(0, 3), "\xff\xd8\xff");
  EXPECT_EQ(picture.out.substr(picture.out.size() - 2), "\xff\xd9");
  EXPECT_EQ(Status({"--digest", "-u", "view:wrong"}, "/jpeg/1"), "401");
  EXPECT_EQ(Status({"--digest", "-u", "stranger:wrong"}, "/jpeg/1"), "401");
  EXPECT_EQ(Status({"--digest", "-u", "nobody:"}, "/jpeg/1"), "401");
}

TEST_F(AGatewayProcess, GivesEachUserWhatTheRulesSay) {
  for (const char* target :
       {"/inject.cgi", "/jpeg/../inject.cgi", "/%69nject.cgi?a=b", "//inject.cgi"}) {
    EXPECT_EQ(Status({}, target), "401") << target;
    EXPECT_EQ(Status(As("view"), target), "403") << target;
    EXPECT_EQ(Status(As("admin"), target), "200") << target;
  }
  EXPECT_EQ(Status({}, "/system"), "200");
  EXPECT_EQ(Status({}, "/%00"), "400");
}

TEST_F(AGatewayProcess, AsksForNoDigestWhileTheCookieLives) {
  const std::string jar = fixture_.gateway.Dir().File("jar");
  std::vector<std::string> logon = As("view");
  logon.insert(logon.end(), {"-c", jar});
  EXPECT_EQ(Status(logon, "/jpeg/1"), "200");
  EXPECT_EQ(Status({"-b", jar}, "/jpeg/2"), "200");
  EXPECT_EQ(Status({"-b", jar}, "/inject.cgi"), "403");
  EXPECT_EQ(Status({"-b", jar, "-c", jar}, "/logout"), "200");
  EXPECT_EQ(fixture_.gateway.Dir().Read("jar").find("vigila_session\t"), std::string::npos);
  EXPECT_EQ(Status({"-b", jar}, "/jpeg/2"), "401");
}

TEST_F(AGatewayProcess, EndsTheSessionEverywhereAtLogout) {
  const Finished logon = Curl({"-i", "--digest", "-u", "view:view's secret"}, "/jpeg/1");
  const size_t at = logon.out.find("vigila_session=");
  ASSERT_NE(at, std::string::npos);
  const std::string cookie = logon.out.substr(at, 23);
  EXPECT_EQ(Status({"-b", cookie}, "/jpeg/3"), "200");
  EXPECT_EQ(Status({"-b", cookie}, "/logout"), "200");
  EXPECT_EQ(Status({"-b", cookie}, "/jpeg/4"), "401");
}

TEST_F(AGatewayProcess, IsUnavailableWithoutItsServiceAndComesBackWithIt) {
  EXPECT_EQ(Status(As("view"), "/jpeg/1"), "200");
  fixture_.device.Stop(SIGKILL);
  for (const char* target : {"/system", "/jpeg/5", "/inject.cgi", "/healthz", "/"}) {
    EXPECT_EQ(Status({}, target), "503") << target;
    EXPECT_EQ(Status({"-b", "vigila_session=00000001"}, target), "503") << target;
  }
  ASSERT_EQ(fixture_.device.LaunchAndAwaitReady(), support::DaemonProcess::Start::kReady);
  EXPECT_EQ(Status({}, "/healthz"), "200");
  EXPECT_EQ(Status({}, "/jpeg/5"), "401");
  EXPECT_EQ(Status(As("view"), "/jpeg/5"), "200");
}

// What is asked for continuously is answered from memory, which must end with the service.
TEST_F(AGatewayProcess, IsUnavailableAtOnceForWhatWasAskedUntilItsServiceDied) {
  const std::string jar = fixture_.gateway.Dir().File("jar");
  std::vector<std::string> logon = As("view");
  logon.insert(logon.end(), {"-c", jar});
  EXPECT_EQ(Status(logon, "/jpeg/1"), "200");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Status({}, "/system"), "200");
    EXPECT_EQ(Status({"-b", jar}, "/jpeg/1"), "200");
  }
  fixture_.device.Stop(SIGKILL);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Status({}, "/system"), "503");
    EXPECT_EQ(Status({"-b", jar}, "/jpeg/1"), "503");
  }
}

// What a browser answers to the challenge in curl's output.
std::string AnswerTo(const Finished& challenge, const std::string& uri) {
  const size_t at = challenge.out.find("nonce=\"") + 7;
  const std::string nonce = challenge.out.substr(at, 32);
  const std::string ha1 = RequestDigest("view", "Varno:view's secret");
  const std::string ha2 = RequestDigest("GET", uri);
  return "Authorization: Digest username=\"view\", realm=\"Varno\", nonce=\"" + nonce +
         "\", uri=\"" + uri + "\", qop=auth, nc=00000001, cnonce=\"c\", response=\"" +
         RequestDigest(ha1, nonce + ":00000001:c:auth:" + ha2) + "\"";
}

TEST_F(AGatewayProcess, LetsInWhoLeavesTheQueryOutOfTheSignedUri) {
  const Finished challenge = Curl({"-i"}, "/jpeg/1?x=1");
  EXPECT_EQ(Status({"-H", AnswerTo(challenge, "/jpeg/1?x=2")}, "/jpeg/1?x=1"), "400");
  EXPECT_EQ(Status({"-H", AnswerTo(challenge, "/jpeg/2")}, "/jpeg/1?x=1"), "400");
  EXPECT_EQ(Status({"-H", AnswerTo(challenge, "/jpeg/1")}, "/inject.cgi?x=1"), "400");
  EXPECT_EQ(Status({"-H", AnswerTo(challenge, "/jpeg/1")}, "/jpeg/1?x=1"), "200");
}

TEST_F(AGatewayProcess, AnswersPipelinedRequestsInTheirOrder) {
  const std::string answer =
      Raw("GET /system HTTP/1.1\r\nHost: x\r\n\r\nGET /jpeg/1 HTTP/1.1\r\nHost: x\r\n\r\n"
          "GET /%zz HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  const size_t first = answer.find("HTTP/1.1 200");
  const size_t second = answer.find("HTTP/1.1 401");
  const size_t third = answer.find("HTTP/1.1 400");
  ASSERT_NE(third, std::string::npos) << answer;
  EXPECT_LT(first, second);
  EXPECT_LT(second, third);
}

class AGatewayProcessWithASite : public AGatewayProcess {
 protected:
  std::vector<std::string> Options() const override {
    std::filesystem::create_directories(site_.File(".git"));
    site_.Write(".git/config", "hidden");
    site_.Write("page.html", "shown");
    return {"--site-dir", site_.File(".")};
  }
  const support::TempDir site_;
};

TEST_F(AGatewayProcessWithASite, ServesNoDotFilesHoweverTheyAreWritten) {
  EXPECT_EQ(Status({}, "/page.html"), "200");
  for (const char* target :
       {"/.git/config", "/%2egit/config", "/%2Egit%2fconfig", "/x/../.git/config", "//.git//config",
        "/.%67it/config", "/.git/", "/%252egit/config"}) {
    EXPECT_EQ(Status({}, target), "404") << target;
  }
}

class AnImpatientGatewayProcess : public AGatewayProcess {
 protected:
  std::vector<std::string> Options() const override {
    return {"--idle-timeout", "2", "--request-timeout", "2", "--max-body", "1000"};
  }
  // Sends the bytes one by one, so that the connection is never idle, until the server ends it;
  // false when it took all of them.
  bool EndsWhileSent(const std::string& bytes) const {
    const Fd socket_fd = Connect();
    for (const char byte : bytes) {
      if (send(socket_fd.Get(), &byte, 1, MSG_NOSIGNAL) != 1) return true;
      pollfd wait = {socket_fd.Get(), POLLRDHUP, 0};
      if (poll(&wait, 1, 50) == 1) return true;
    }
    return false;
  }
  static std::string Chunked(size_t size) {
    std::string bytes =
        "POST /inject.cgi HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
        "Transfer-Encoding: chunked\r\n\r\n";
    for (size_t i = 0; i < size / 100; ++i) bytes += "64\r\n" + std::string(100, 'a') + "\r\n";
    return bytes + "0\r\n\r\n";
  }
};

TEST_F(AnImpatientGatewayProcess, WaitsForNoRequestThatTricklesIn) {
  const std::string head = "POST /inject.cgi HTTP/1.1\r\nHost: x\r\nContent-Length: 900\r\n";
  EXPECT_TRUE(EndsWhileSent(head + "X: " + std::string(900, 'a')));
  EXPECT_EQ(Status({}, "/system"), "200");
}

TEST_F(AnImpatientGatewayProcess, WaitsForNoBodyThatTricklesIn) {
  const Fd socket_fd = Connect();
  const std::string head = "POST /inject.cgi HTTP/1.1\r\nHost: x\r\nContent-Length: 900\r\n\r\n";
  send(socket_fd.Get(), head.data(), head.size(), MSG_NOSIGNAL);
  bool ended = false;
  for (int i = 0; i < 800 && !ended; ++i) {
    pollfd wait = {socket_fd.Get(), POLLRDHUP, 0};
    ended = send(socket_fd.Get(), "a", 1, MSG_NOSIGNAL) != 1 || poll(&wait, 1, 50) == 1;
  }
  EXPECT_TRUE(ended);
  EXPECT_EQ(Status({}, "/system"), "200");
}

TEST_F(AnImpatientGatewayProcess, RefusesABodyThatIsTooLarge) {
  EXPECT_EQ(Raw(Chunked(1000)).rfind("HTTP/1.1 401 ", 0), 0u);
  EXPECT_EQ(Raw(Chunked(1100)).rfind("HTTP/1.1 413 ", 0), 0u);
  EXPECT_EQ(Raw(Chunked(15000)).rfind("HTTP/1.1 413 ", 0), 0u);
  // Not read to its end.
  EXPECT_EQ(Raw(Chunked(2000000)).find("HTTP/1.1 200 "), std::string::npos);
  const std::string head = "POST /inject.cgi HTTP/1.1\r\nHost: x\r\nContent-Length: ";
  EXPECT_EQ(Raw(head + "1001\r\n\r\n").rfind("HTTP/1.1 413 ", 0), 0u);
  EXPECT_EQ(Raw(head + "18446744073709551617\r\n\r\n").find("HTTP/1.1 200 "), std::string::npos);
  EXPECT_EQ(Status({}, "/system"), "200");
}

TEST_F(AnImpatientGatewayProcess, LivesOnAfterRequestsThatAreCutOffOrNonsense) {
  for (const std::string& bytes :
       {std::string("GET"), std::string("GET /jpeg/1 HTTP/1.1\r\nHost"),
        std::string("POST /onvif/x HTTP/1.1\r\nHost: x\r\nContent-Type: text/xml\r\n"
                    "Content-Length: 100\r\n\r\n<Envelope>"),
        std::string("POST /onvif/x HTTP/1.1\r\nHost: x\r\nContent-Type: text/xml\r\n"
                    "Transfer-Encoding: chunked\r\n\r\nzz\r\n"),
        std::string("\0\xff\r\n\r\n", 6), std::string(100000, 'A'),
        "GET / HTTP/1.1\r\nHost: x\r\nAuthorization: " + std::string(60000, 'a') + "\r\n\r\n"}) {
    const std::string answer = Raw(bytes);
    EXPECT_EQ(answer.find("HTTP/1.1 200"), std::string::npos) << bytes.substr(0, 40);
  }
  EXPECT_EQ(Status({}, "/system"), "200");
}

TEST_F(AGatewayProcess, ServesNothingForARawZeroByteInAPath) {
  const std::string answer =
      Raw(std::string("GET /inject.cgi\0/x HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", 59));
  EXPECT_EQ(answer.find("HTTP/1.1 200"), std::string::npos) << answer;
}

TEST_F(AGatewayProcess, CountsAtAnAddressOfItsOwn) {
  EXPECT_EQ(Status({"--digest", "-u", "view:wrong"}, "/jpeg/1"), "401");
  EXPECT_EQ(Status(As("view"), "/jpeg/1"), "200");
  const Finished counters = RunProgram({kCurl, "-s", fixture_.gateway.MetricsUrl()});
  for (const char* line : {"vigila_gateway_logons_total{scheme=\"digest\",result=\"refused\"} 1\n",
                           "vigila_gateway_logons_total{scheme=\"digest\",result=\"success\"} 1\n",
                           "vigila_gateway_http_requests_total{handler=\"site\",code=\"200\"} 1\n",
                           "vigila_gateway_service_failures_total 0\n"}) {
    EXPECT_NE(counters.out.find(line), std::string::npos) << line << counters.out;
  }
  const std::string hits = "\nvigila_gateway_cache_hits_total ";
  EXPECT_NE(counters.out.find(hits), std::string::npos);
  EXPECT_EQ(counters.out.find(hits + "0\n"), std::string::npos) << counters.out;
  EXPECT_EQ(Status({}, "/metrics"), "404");
}

TEST_F(AGatewayProcess, LogsNoTokenAndNoCredentials) {
  const Finished logon = Curl({"-i", "--digest", "-u", "view:view's secret"}, "/jpeg/1?secret=1");
  const size_t at = logon.out.find("vigila_session=");
  ASSERT_NE(at, std::string::npos);
  const std::string token = logon.out.substr(at + 15, 8);
  const std::string log = fixture_.gateway.Log();
  EXPECT_NE(log.find("\"path\":\"/jpeg/1\",\"user\":\"view\",\"status\":200"), std::string::npos)
      << log;
  EXPECT_EQ(log.find(token), std::string::npos);
  EXPECT_EQ(log.find("secret"), std::string::npos);
}

TEST_F(AGatewayProcess, AnswersAnAuthRequestWithTheUserAndItsGroups) {
  std::vector<std::string> ask = {"-i", "-H", "X-Original-Method: GET", "-H",
                                  "X-Original-URI: /jpeg/1?x=1"};
  const Finished stranger = Curl(ask, "/auth");
  EXPECT_EQ(stranger.out.rfind("HTTP/1.1 401 ", 0), 0u) << stranger.out;

  const Finished logon = Curl({"-i", "--digest", "-u", "admin:admin's secret"}, "/jpeg/1");
  const size_t at = logon.out.find("vigila_session=");
  ASSERT_NE(at, std::string::npos);
  ask.insert(ask.end(), {"-b", logon.out.substr(at, 23)});
  const Finished admin = Curl(ask, "/auth");
  EXPECT_EQ(admin.out.rfind("HTTP/1.1 200 ", 0), 0u) << admin.out;
  EXPECT_NE(admin.out.find("X-Auth-User: admin\r\n"), std::string::npos);
  EXPECT_NE(admin.out.find("X-Auth-Groups: admins,managers,operators,viewers\r\n"),
            std::string::npos);
}

TEST_F(AGatewayProcess, StopsInOrder) {
  const Finished end = fixture_.gateway.Stop();
  EXPECT_EQ(end.exit_code, 0);
}

class AGatewayBeforeAHungService : public AGatewayProcess {
 protected:
  void Configure(support::DaemonProcess& device) const override {
    device.Set("MsgBus", "timeout_ms", "3000");
  }
};

TEST_F(AGatewayBeforeAHungService, WaitsForOneDeadlineOnceAndIsThereAgainWithIt) {
  EXPECT_EQ(Status(As("view"), "/jpeg/1"), "200");
  fixture_.device.Running().Signal(SIGSTOP);
  const auto start = support::Clock::now();
  EXPECT_EQ(Status(As("view"), "/jpeg/9"), "503");
  const auto first = support::Clock::now();
  EXPECT_LT(first - start, std::chrono::seconds(7));
  for (const char* target : {"/jpeg/10", "/inject.cgi", "/healthz", "/never-asked-about"}) {
    EXPECT_EQ(Status({}, target), "503") << target;
    EXPECT_EQ(Status({"-b", "vigila_session=00000001"}, target), "503") << target;
  }
  EXPECT_LT(support::Clock::now() - first, std::chrono::seconds(10));
  fixture_.device.Running().Signal(SIGCONT);
  const auto until = support::Clock::now() + std::chrono::seconds(20);
  while (Status({}, "/healthz") != "200" && support::Clock::now() < until) {
  }
  EXPECT_EQ(Status({}, "/healthz"), "200");
  EXPECT_EQ(Status(As("view"), "/jpeg/9"), "200");
}

class ABasicGatewayProcess : public AGatewayProcess {
 protected:
  std::vector<std::string> Options() const override { return {"--basic", "--tls-in-front"}; }
};

TEST_F(ABasicGatewayProcess, TakesAPasswordAndSecuresTheCookie) {
  EXPECT_EQ(Status(As("view", "--basic"), "/jpeg/1"), "200");
  EXPECT_EQ(Status({"--basic", "-u", "view:wrong"}, "/jpeg/1"), "401");
  std::vector<std::string> ask = As("view", "--basic");
  ask.push_back("-i");
  EXPECT_NE(Curl(ask, "/jpeg/1").out.find("SameSite=Strict; Secure\r\n"), std::string::npos);
}

TEST(AGatewayProcessOf, WrongUsageSaysSo) {
  EXPECT_EQ(RunProgram({VIGILA_GATEWAY_PATH, "--port", "70000"}).exit_code, 2);
  EXPECT_EQ(RunProgram({VIGILA_GATEWAY_PATH, "--nonsense"}).exit_code, 2);
  EXPECT_EQ(RunProgram({VIGILA_GATEWAY_PATH, "--listen", "nowhere"}).exit_code, 2);
  EXPECT_EQ(RunProgram({VIGILA_GATEWAY_PATH, "--trusted-proxy", "proxy.example"}).exit_code, 2);
  EXPECT_EQ(RunProgram({VIGILA_GATEWAY_PATH, "--help"}).exit_code, 0);
}

TEST(AGatewayProcessOf, AWrongPlatformConfigurationSaysSo) {
  const support::TempDir dir;
  const std::string file = dir.Write("platform.ini", "[MsgBus]\ntransport = pigeon\n");
  const Finished end = RunProgram({VIGILA_GATEWAY_PATH, "--config", file});
  EXPECT_EQ(end.exit_code, 78);
  EXPECT_EQ(end.err,
            "vigila-gateway: [MsgBus] transport: \"pigeon\" is neither direct nor broker\n");
  EXPECT_EQ(RunProgram({VIGILA_GATEWAY_PATH, "--config", dir.File("missing")}).exit_code, 78);
}

}  // namespace

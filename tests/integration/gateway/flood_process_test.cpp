// Strangers at the door of a whole gateway, and those who have an account beside them.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/gateway_process.h"
#include "support/http_connection.h"
#include "vigila-gateway/auth/digest.h"

namespace {

using std::chrono::milliseconds;
using support::Clock;
using support::ConnectTo;
using support::Fd;
using support::GatewayFixture;
using support::HttpConnection;
using vigila::gateway::RequestDigest;

constexpr char kPicture[] = "/jpeg/1";

std::string Get(const std::string& target, const std::string& headers = "") {
  return "GET " + target + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n";
}
std::string StatusOf(const std::string& answer) {
  return answer.size() < 12 ? "none" : answer.substr(9, 3);
}
bool IsStale(const std::string& answer) {
  return answer.find(", stale=true\r\n") != std::string::npos;
}
std::string NonceOf(const std::string& challenge) {
  const size_t at = challenge.find("nonce=\"");
  return at == std::string::npos ? "" : challenge.substr(at + 7, 32);
}
std::string AnswerTo(const std::string& challenge, const std::string& user,
                     const std::string& nc = "00000001") {
  const std::string nonce = NonceOf(challenge);
  const std::string ha1 =
      RequestDigest(user, "Varno:" + support::DeviceWithAccounts::PasswordOf(user));
  return Get(
      kPicture,
      "Authorization: Digest username=\"" + user + "\", realm=\"Varno\", nonce=\"" + nonce +
          "\", uri=\"" + kPicture + "\", qop=auth, nc=" + nc + ", cnonce=\"c\", response=\"" +
          RequestDigest(ha1, nonce + ":" + nc + ":c:auth:" + RequestDigest("GET", kPicture)) +
          "\"\r\n");
}

// One connection that asks without credentials, as fast as it is answered, until its end.
class Strangers {
 public:
  explicit Strangers(const std::string& host_and_port)
      : connection_(host_and_port, "127.0.0.9"), thread_([this] { Flood(); }) {}
  ~Strangers() {
    stop_ = true;
    thread_.join();
  }
  unsigned Refused() const { return refused_; }

 private:
  void Flood() {
    std::string batch;
    for (int i = 0; i < kBatch; ++i) batch += Get(kPicture);
    while (!stop_) {
      connection_.Send(batch);
      for (int i = 0; i < kBatch; ++i) {
        if (StatusOf(connection_.Receive()) == "401") ++refused_;
      }
    }
  }

  static constexpr int kBatch = 50;
  HttpConnection connection_;
  std::atomic<bool> stop_{false};
  std::atomic<unsigned> refused_{0};
  std::thread thread_;
};

class AGatewayUnderFlood : public testing::Test {
 protected:
  void Start(const std::vector<std::string>& options = {}) {
    ASSERT_TRUE(fixture_.Start(options)) << fixture_.device.Log() << fixture_.gateway.Log();
  }
  std::string Where() const { return fixture_.gateway.HostAndPort(); }
  // Asks on a connection of its own, from the address.
  std::string Ask(const std::string& request, const char* from = "") const {
    return HttpConnection(Where(), from).Ask(request);
  }
  // Until the strangers have been refused so many times more.
  static void Await(const Strangers& strangers, unsigned more) {
    const unsigned goal = strangers.Refused() + more;
    const auto until = Clock::now() + std::chrono::seconds(60);
    while (strangers.Refused() < goal && Clock::now() < until) poll(nullptr, 0, 1);
    ASSERT_GE(strangers.Refused(), goal);
  }

  GatewayFixture fixture_;
};

TEST_F(AGatewayUnderFlood, TakesTheFirstAnswerThoughStrangersAskedThousandsOfTimesMeanwhile) {
  Start();
  const Strangers strangers(Where());
  const std::string challenge = Ask(Get(kPicture));
  Await(strangers, 3000);
  EXPECT_EQ(StatusOf(Ask(AnswerTo(challenge, "view"))), "200");
  Await(strangers, 3000);
  EXPECT_EQ(StatusOf(Ask(AnswerTo(challenge, "view", "00000002"))), "200");
}

TEST_F(AGatewayUnderFlood, LetsEveryoneInWithAtMostOneMoreRoundHoweverSlow) {
  Start();
  std::vector<std::unique_ptr<Strangers>> strangers;
  for (int i = 0; i < 2; ++i) strangers.push_back(std::make_unique<Strangers>(Where()));
  const auto refused = [&] { return strangers[0]->Refused() + strangers[1]->Refused(); };
  struct Load {
    milliseconds delay;
    int logons;
  };
  for (const Load load : {Load{milliseconds(0), 40}, Load{milliseconds(50), 10},
                          Load{milliseconds(100), 8}, Load{milliseconds(300), 4}}) {
    const auto start = Clock::now();
    const unsigned before = refused();
    int once_more = 0;
    for (int i = 0; i < load.logons; ++i) {
      // Two clients at once, as they share a nonce: the second one needs its own.
      const std::string challenges[] = {Ask(Get(kPicture)), Ask(Get(kPicture))};
      poll(nullptr, 0, static_cast<int>(load.delay.count()));
      for (const std::string& challenge : challenges) {
        std::string answer = Ask(AnswerTo(challenge, "view"));
        if (StatusOf(answer) == "401" && IsStale(answer)) {
          ++once_more;
          poll(nullptr, 0, static_cast<int>(load.delay.count()));
          answer = Ask(AnswerTo(answer, "view"));
        }
        EXPECT_EQ(StatusOf(answer), "200") << answer;
      }
    }
    const auto took = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("delay %3d ms: %2d logons, %2d of them in two rounds; %.0f refused a second\n",
                static_cast<int>(load.delay.count()), 2 * load.logons, once_more,
                (refused() - before) / took);
  }
}

TEST_F(AGatewayUnderFlood, GivesANonceOfItsOwnForARightAnswerAndForNothingElse) {
  Start();
  std::string view = Ask(Get(kPicture));
  std::string admin = Ask(Get(kPicture));
  // A second may have passed between the two, but not between all of these.
  for (int i = 0; i < 20 && NonceOf(view) != NonceOf(admin); ++i) {
    view = admin;
    admin = Ask(Get(kPicture));
  }
  ASSERT_EQ(NonceOf(view), NonceOf(admin));
  EXPECT_EQ(StatusOf(Ask(AnswerTo(view, "view"))), "200");
  const std::string stale = Ask(AnswerTo(admin, "admin"));
  EXPECT_EQ(StatusOf(stale), "401");
  EXPECT_TRUE(IsStale(stale)) << stale;
  EXPECT_NE(NonceOf(stale), NonceOf(admin));
  EXPECT_EQ(StatusOf(Ask(AnswerTo(stale, "admin"))), "200");
  // What was said once opens nothing again, on a shared nonce or on one's own.
  for (const std::string& replay : {AnswerTo(view, "view"), AnswerTo(stale, "admin")}) {
    const std::string answer = Ask(replay);
    EXPECT_EQ(StatusOf(answer), "401");
    EXPECT_TRUE(IsStale(answer)) << answer;
  }
  std::string wrong = AnswerTo(admin, "admin");
  wrong.replace(wrong.find("nc=00000001"), 11, "nc=00000002");
  const std::string refused = Ask(wrong);
  EXPECT_EQ(StatusOf(refused), "401");
  EXPECT_FALSE(IsStale(refused)) << refused;
}

// Connections that have begun a request and do not go on.
class SlowConnections {
 public:
  SlowConnections(const std::string& host_and_port, const char* from, int count) {
    for (int i = 0; i < count; ++i) {
      connections_.push_back(ConnectTo(host_and_port, from));
      send(connections_.back().Get(), "GET /system HTTP/1.1\r\n", 22, MSG_NOSIGNAL);
    }
  }
  // How many the server keeps, once it has ended `count` of them; -1 when it does not.
  int LeftAfter(int count) const {
    const auto until = Clock::now() + std::chrono::seconds(20);
    while (Clock::now() < until) {
      int ended = 0;
      for (const Fd& connection : connections_) {
        pollfd wait = {connection.Get(), POLLIN | POLLRDHUP, 0};
        if (poll(&wait, 1, 0) == 1) ++ended;
      }
      if (ended >= count) return static_cast<int>(connections_.size()) - ended;
    }
    return -1;
  }

 private:
  std::vector<Fd> connections_;
};

TEST_F(AGatewayUnderFlood, IsNotStalledByTheSlowConnectionsOfOneAddress) {
  Start();
  {
    const SlowConnections slow(Where(), "127.0.0.9", 300);
    // Each of the four threads may have let one more in.
    EXPECT_GE(slow.LeftAfter(300 - 68), 64);
    for (int i = 0; i < 20; ++i) EXPECT_EQ(StatusOf(Ask(Get("/system"))), "200");
    EXPECT_EQ(StatusOf(Ask(AnswerTo(Ask(Get(kPicture)), "view"))), "200");
  }
  // Once they are gone, the address is served like any other.
  const auto until = Clock::now() + std::chrono::seconds(20);
  std::string answer;
  while (answer.empty() && Clock::now() < until) {
    try {
      answer = Ask(Get("/system"), "127.0.0.9");
    } catch (const std::runtime_error&) {
      // Ended before it could ask.
    }
  }
  EXPECT_EQ(StatusOf(answer), "200");
}

TEST_F(AGatewayUnderFlood, BoundsNoProxyThatItWasGiven) {
  Start({"--trusted-proxy", "127.0.0.9", "--max-connections-per-address", "10"});
  const SlowConnections proxy(Where(), "127.0.0.9", 100);
  const SlowConnections other(Where(), "127.0.0.8", 100);
  EXPECT_GE(other.LeftAfter(100 - 14), 10);
  EXPECT_EQ(proxy.LeftAfter(0), 100);
  EXPECT_EQ(StatusOf(Ask(Get("/system"))), "200");
}

}  // namespace

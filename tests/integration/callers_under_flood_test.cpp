// Callers that do what they may, beside crowds of others that do what they should not. Their
// latency is printed; what counts is that no one of them is refused.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/device_with_accounts.h"
#include "support/raw_socket.h"

namespace {

using support::Clock;
using support::RawSocket;
using tevra::msgbus::MsgBusMsg;
using Values = std::vector<MsgBusMsg::Value>;
using Seconds = std::chrono::duration<double>;
using Milliseconds = std::chrono::duration<double, std::milli>;
namespace wire = tevra::msgbus::wire;

constexpr gid_t kServiceGroup = 61001;
constexpr uid_t kHonest = 61101;
constexpr uid_t kCareless = 61102;  // has the role service, too
constexpr uid_t kStrangers[] = {61301, 61302};
constexpr char kInterface[] = "tevra.interfaces.ISecurityProvider";

// A connection of a user who has the role service.
class Caller final {
 public:
  Caller(const std::string& path, uid_t user)
      : socket_(RawSocket::ConnectAs(path, user, {kServiceGroup})) {
    socket_.Write(support::RawHello());
    welcome_ = socket_.ReadFrame();
  }

  bool IsAdmitted() const {
    return !welcome_.empty() && welcome_[0] == static_cast<char>(wire::Kind::kWelcome);
  }
  void Send(const std::string& member, const Values& values) {
    socket_.Write(support::RawCall(kInterface, member, values));
  }
  // Answers nothing for an error and for no answer.
  Values Receive() {
    const std::string body = socket_.ReadFrame();
    const auto frame = wire::ParseBody(body);
    MsgBusMsg reply("", "", "");
    const bool good =
        frame && frame->kind == wire::Kind::kReply && wire::ReadValues(frame->values, &reply);
    return good ? reply.Body() : Values();
  }
  Values Call(const std::string& member, const Values& values) {
    Send(member, values);
    return Receive();
  }

 private:
  RawSocket socket_;
  std::string welcome_;
};

// Does something over and over until the end of the scope, once at the least.
class Flood final {
 public:
  template <typename Round>
  explicit Flood(Round round)
      : thread_([this, round]() mutable {
          do {
            round();
            ++rounds_;
          } while (!stop_);
        }) {
    while (rounds_ == 0) std::this_thread::yield();
  }
  ~Flood() {
    stop_ = true;
    thread_.join();
  }
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;

  long Rounds() const { return rounds_; }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<long> rounds_{0};
  std::thread thread_;
};

class CallersUnderFlood : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can play other users";
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    setrlimit(RLIMIT_NOFILE, &limit);
    camera_.device.Set("Access", "service_groups", std::to_string(kServiceGroup));
    ASSERT_TRUE(camera_.Start()) << camera_.device.Log();
    const Values logon =
        Honest().Call("Authenticate", {false, std::string("dmlldw=="), PasswordOfView64()});
    ASSERT_EQ(logon.size(), 1u);
    token_ = std::get<std::string>(logon[0]);
    ExpectHonestCallersAreServed("nothing");
  }

  Caller Honest() const { return Caller(camera_.device.ServiceSocket(), kHonest); }
  static std::string PasswordOfView64() { return "dmlldydzIHNlY3JldA=="; }

  bool IsServed(Caller& caller) const {
    return caller.Call("Authorize", {token_, std::string("/jpeg/1")}) == Values{true};
  }
  // A caller who is connected, callers who come anew, and root.
  void ExpectHonestCallersAreServed(const char* beside) {
    std::vector<double> asked, connected;
    Caller old = Honest();
    for (int i = 0; i < 300; ++i) {
      auto start = Clock::now();
      EXPECT_TRUE(IsServed(old)) << beside;
      asked.push_back(Milliseconds(Clock::now() - start).count());
      if (i % 10 != 0) continue;
      start = Clock::now();
      Caller fresh = Honest();
      EXPECT_TRUE(fresh.IsAdmitted() && IsServed(fresh)) << beside;
      connected.push_back(Milliseconds(Clock::now() - start).count());
    }
    const auto start = Clock::now();
    EXPECT_EQ(camera_.device.Ctl({"user", "list"}).exit_code, 0) << "root, beside " << beside;
    printf("beside %-34s authorize %s, with a new connection %s; vigilactl as root %.0f ms\n",
           beside, Quantiles(asked).c_str(), Quantiles(connected).c_str(),
           Milliseconds(Clock::now() - start).count());
  }
  static std::string Quantiles(std::vector<double>& times) {
    std::sort(times.begin(), times.end());
    char text[80];
    snprintf(text, sizeof(text), "%.2f ms, p99 %.2f, worst %.2f", times[times.size() / 2],
             times[times.size() * 99 / 100], times.back());
    return text;
  }

  support::DeviceWithAccounts camera_;
  std::string token_;
};

TEST_F(CallersUnderFlood, AreServedWhileTwoStrangersHoldAllTheyCan) {
  const std::string path = camera_.device.ServiceSocket();
  const Flood flood([&path] {
    std::vector<RawSocket> crowd;
    for (const uid_t stranger : kStrangers) {
      for (int i = 0; i < 128; ++i) crowd.push_back(RawSocket::ConnectAs(path, stranger, {}));
    }
  });
  ExpectHonestCallersAreServed("two strangers' 128 connections each");
}

TEST_F(CallersUnderFlood, AreServedWhileAnotherOpensAThousandConnections) {
  std::vector<Caller> crowd;
  for (int i = 0; i < 1000; ++i) crowd.emplace_back(camera_.device.ServiceSocket(), kCareless);
  const auto admitted = std::count_if(crowd.begin(), crowd.end(),
                                      [](const Caller& caller) { return caller.IsAdmitted(); });
  EXPECT_EQ(admitted, 128) << "the bound of a user";
  ExpectHonestCallersAreServed("another's thousand connections");
}

TEST_F(CallersUnderFlood, AreServedWhileOthersWriteSlowlyLieAndBreakOff) {
  const std::string path = camera_.device.ServiceSocket();
  const std::string call = support::RawCall(kInterface, "GetNonce");
  const std::string openings[] = {
      "", support::RawHello().substr(0, 9), support::RawHello() + support::RawLength(0xffffffff),
      support::RawHello() + call.substr(0, call.size() - 1),
      support::RawFrame({wire::Kind::kHello, 0, 2, "tevra.msgbus", {}, {}})};
  const Flood flood([&] {
    std::vector<RawSocket> crowd;
    for (int i = 0; i < 50; ++i) {
      crowd.push_back(RawSocket::ConnectAs(path, kCareless, {kServiceGroup}));
      crowd.back().Write(openings[static_cast<size_t>(i) % std::size(openings)]);
    }
    RawSocket slow = RawSocket::ConnectAs(path, kCareless, {kServiceGroup});
    for (const char byte : support::RawHello() + call) slow.Write(std::string(1, byte));
  });
  ExpectHonestCallersAreServed("slow, lying and broken writers");
}

TEST_F(CallersUnderFlood, AreServedWhileWrongPasswordsWaitOnTwentyConnections) {
  // An account that does not exist costs as much as one that does, and is never locked.
  const Values wrong = {false, std::string("Z2hvc3Q="), std::string("d3Jvbmch")};
  std::vector<Caller> crowd;
  for (int i = 0; i < 20; ++i) crowd.emplace_back(camera_.device.ServiceSocket(), kCareless);
  for (Caller& caller : crowd) caller.Send("Authenticate", wrong);
  const Values refused = {std::string("NO_TOKEN")};
  const Flood flood([&] {
    for (Caller& caller : crowd) {
      EXPECT_EQ(caller.Receive(), refused);
      caller.Send("Authenticate", wrong);
    }
  });
  ExpectHonestCallersAreServed("20 connections of wrong passwords");
}

TEST_F(CallersUnderFlood, AreServedAndTheLogStaysShortWhileRefusalsAreProvoked) {
  Caller caller(camera_.device.ServiceSocket(), kCareless);
  const size_t before = camera_.device.Log().size();
  const auto start = Clock::now();
  long calls = 0;
  {
    const Flood flood([&caller] { EXPECT_EQ(caller.Call("GetUsers", {}), Values()); });
    ExpectHonestCallersAreServed("one connection's refused calls");
    calls = flood.Rounds();
  }
  const double seconds = Seconds(Clock::now() - start).count();
  const size_t written = camera_.device.Log().size() - before;
  printf("%.0f refused calls a second, %.0f bytes of log a second\n",
         static_cast<double>(calls) / seconds, static_cast<double>(written) / seconds);
  EXPECT_GT(calls, 100);
  EXPECT_LT(written, 2000u) << camera_.device.Log();
}

}  // namespace

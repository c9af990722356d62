#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "support/capturing_log.h"
#include "support/event_log.h"
#include "support/function_handler.h"
#include "support/private_dbus_daemon.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"
#include "transport_fixture.h"

namespace tevra::msgbus {
namespace {

using osa::Exception;
using support::EventLog;
using support::FunctionHandler;
using Clock = std::chrono::steady_clock;

constexpr const char* kPath = "/tevra/test/ITest";
constexpr uid_t kStranger = 65534;

// A connection to the broker that the test drives by hand.
class RawPeer {
 public:
  explicit RawPeer(const std::string& address) {
    sd_bus* bus = nullptr;
    EXPECT_GE(sd_bus_new(&bus), 0);
    bus_ = bus;
    EXPECT_GE(sd_bus_set_address(bus_, address.c_str()), 0);
    EXPECT_GE(sd_bus_set_bus_client(bus_, 1), 0);
    EXPECT_GE(sd_bus_start(bus_), 0);
  }
  ~RawPeer() { sd_bus_close_unref(bus_); }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  bool Own(const char* name) { return sd_bus_request_name(bus_, name, 0) >= 0; }
  // Sends a call without arguments and does not wait for its answer.
  void Call(const char* member) {
    sd_bus_message* call = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(bus_, &call, kDestination, kPath, kInterface, member),
              0);
    EXPECT_GE(sd_bus_send(bus_, call, nullptr), 0);
    EXPECT_GE(sd_bus_flush(bus_), 0);
    sd_bus_message_unref(call);
  }
  // Broadcasts without end and answers every call with an empty reply.
  [[noreturn]] void Serve() {
    for (;;) {
      sd_bus_message* message = nullptr;
      const int result = sd_bus_process(bus_, &message);
      if (message != nullptr && sd_bus_message_is_method_call(message, kInterface, nullptr) > 0) {
        sd_bus_emit_signal(bus_, kPath, kInterface, "Changed", "");
        sd_bus_reply_method_return(message, "");
      }
      sd_bus_message_unref(message);
      if (result < 0 || (result == 0 && sd_bus_wait(bus_, UINT64_MAX) < 0)) _exit(0);
    }
  }

 private:
  sd_bus* bus_ = nullptr;
};

class BrokerTransportTest : public TransportTest {
 protected:
  void SetUp() override {
    broker_ = support::PrivateDbusDaemon::Start();
    if (!broker_) GTEST_SKIP() << "dbus-daemon is not installed";
    platform_.Set("MsgBus", "transport", "broker");
    platform_.Set("MsgBus", "address", broker_->address());
  }

  static std::string FailureToServe(MsgBus& bus) {
    try {
      bus.StartServer(kDestination);
      return "no failure";
    } catch (const Exception& failure) {
      return failure.what();
    }
  }
  // A client whose watch of the destination reports to `log`.
  static std::unique_ptr<MsgBus> Watcher(FunctionHandler& note) {
    auto bus = NewBus();
    bus->RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
    bus->RegisterMessageHandler("Changed", kInterface, &note);
    bus->WatchDestination(kDestination);
    return bus;
  }

  std::unique_ptr<support::PrivateDbusDaemon> broker_;
};

// A program of another user that serves the destination.
class Stranger {
 public:
  explicit Stranger(const std::string& address) {
    int ready[2];
    EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
    pid_ = fork();
    if (pid_ == 0) {
      if (setresgid(kStranger, kStranger, kStranger) != 0) _exit(1);
      if (setresuid(kStranger, kStranger, kStranger) != 0) _exit(1);
      RawPeer peer(address);
      if (!peer.Own(kDestination) || write(ready[1], "", 1) != 1) _exit(1);
      peer.Serve();
    }
    close(ready[1]);
    char byte = 0;
    serves_ = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
  }
  ~Stranger() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;

  bool Serves() const { return serves_; }

 private:
  pid_t pid_ = -1;
  bool serves_ = false;
};

TEST_F(BrokerTransportTest, RefusesNamesThatNoOneCanHaveOnABroker) {
  auto bus = NewBus();
  for (const char* name : {"", "one", ":1.5", "a..b", "a b.c", ".a.b"}) {
    EXPECT_THROW(bus->RegisterDestinationName(name), Exception) << name;
    EXPECT_THROW(bus->WatchDestination(name), Exception) << name;
    EXPECT_THROW(bus->HasServer(name), Exception) << name;
  }
}

TEST_F(BrokerTransportTest, LeavesANameToWhoeverHasIt) {
  auto first = EchoServer();
  auto second = NewBus();
  EXPECT_EQ(FailureToServe(*second), "message bus: tevra.Test is served by somebody else");
  EXPECT_FALSE(second->IsRunning());
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
  first.reset();
  EXPECT_EQ(FailureToServe(*second), "no failure");
}

TEST_F(BrokerTransportTest, TellsThatANameIsServedByAProgramOfAnotherMaker) {
  auto asking = NewBus();
  RawPeer other(broker_->address());
  EXPECT_FALSE(asking->HasServer(kDestination));
  ASSERT_TRUE(other.Own(kDestination));
  EXPECT_TRUE(asking->HasServer(kDestination));
}

TEST_F(BrokerTransportTest, SaysThatTheBrokerIsNotThere) {
  broker_->Kill();
  auto bus = NewBus();
  EXPECT_EQ(FailureOf(*bus, Request("Echo")), "message bus: cannot connect: Connection refused");
  EXPECT_EQ(FailureToServe(*bus), "message bus: cannot connect: Connection refused");
  EXPECT_FALSE(bus->IsRunning());
  EXPECT_THROW(bus->HasServer(kDestination), Exception);
}

TEST_F(BrokerTransportTest, GoesOnWithABrokerThatWasKilledAndStartedAgain) {
  const auto server = EchoServer();
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
  auto client = Watcher(note);
  ASSERT_TRUE(log.WaitFor(1));
  for (size_t round = 0; round < 3; ++round) {
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
    broker_->Kill();
    const auto asked = Clock::now();
    EXPECT_NE(FailureOf(*client, Request("Echo")), "no failure");
    EXPECT_LT(Clock::now() - asked, std::chrono::seconds(4)) << "a dead broker fails at once";
    ASSERT_TRUE(broker_->Restart());
    // The server takes its name again and the client hears of it, without help.
    ASSERT_TRUE(log.WaitFor(2 + 2 * round));
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
    EXPECT_TRUE(server->IsRunning());
    // The first answer after the failure is an appearance by itself.
    ASSERT_TRUE(log.WaitFor(3 + 2 * round));
  }
  MsgBusMsg changed(kInterface, "Changed", "");
  server->SendMsg(changed);
  ASSERT_TRUE(log.WaitFor(8));
  EXPECT_EQ(log.Events().back(), "Changed");
  client.reset();
}

// Reports the warnings of the bus.
class WarningSink final : public core::Logger::Sink {
 public:
  WarningSink() : previous_(core::Logger::SetSink(this)) {}
  ~WarningSink() override { core::Logger::SetSink(previous_); }
  void Write(core::Logger::Level level, const std::string& logger,
             const std::string& text) override {
    if (level == core::Logger::kWarning && logger == "MsgBus") log.Add(text);
  }
  EventLog log;

 private:
  core::Logger::Sink* const previous_;
};

TEST_F(BrokerTransportTest, SaysOnceWhyAServerCannotComeBack) {
  WarningSink warnings;
  auto server = EchoServer();
  broker_->Kill();
  // In the broker's place, somebody who hangs up on everybody.
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = broker_->address().substr(std::string("unix:path=").size());
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  unlink(path.c_str());
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 8), 0);
  for (int attempt = 0; attempt < 5; ++attempt) {
    pollfd caller{listener, POLLIN, 0};
    ASSERT_EQ(poll(&caller, 1, 10000), 1);
    close(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  }
  std::vector<std::string> said = warnings.log.Events();
  std::sort(said.begin(), said.end());
  EXPECT_FALSE(said.empty());
  EXPECT_EQ(std::adjacent_find(said.begin(), said.end()), said.end());
  close(listener);
  EventLog back;
  FunctionHandler note([&back](IMsgBus&, MsgBusMsg& message) { back.Add(message.GetName()); });
  ASSERT_TRUE(broker_->Restart());
  auto client = Watcher(note);
  ASSERT_TRUE(back.WaitFor(1));
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  client.reset();
  server.reset();
}

TEST_F(BrokerTransportTest, WatchesADestinationBeforeThereIsABroker) {
  broker_->Kill();
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
  auto client = Watcher(note);
  ASSERT_TRUE(broker_->Restart());
  const auto server = EchoServer();
  EXPECT_TRUE(log.WaitFor(1));
  client.reset();
}

TEST_F(BrokerTransportTest, WatchesADestinationThatAHangingBrokerKeptItFromWatching) {
  const auto server = EchoServer();
  auto other = NewBus();
  other->StartServer("tevra.Other");
  platform_.Set("MsgBus", "timeout_ms", "50");
  WarningSink warnings;
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) {
    const std::string& name = std::get<std::string>(message.Body().at(0));
    if (name == "tevra.Other") log.Add(name);
    if (log.Events().empty()) log.Add("connected");
  });
  auto client = Watcher(note);
  ASSERT_TRUE(log.WaitFor(1));
  EXPECT_EQ(warnings.log.Events(), std::vector<std::string>());
  broker_->Pause();
  client->WatchDestination("tevra.Other");
  EXPECT_TRUE(warnings.log.WaitFor(1));
  broker_->Continue();
  EXPECT_TRUE(log.WaitFor(2));
  client.reset();
  other.reset();
}

TEST_F(BrokerTransportTest, GoesOnServingWhenTheBrokerRefusesAWatch) {
  // One rule of the endpoint's own and two of the first watch: the second watch is refused.
  broker_ =
      support::PrivateDbusDaemon::Start("<limit name=\"max_match_rules_per_connection\">4</limit>");
  platform_.Set("MsgBus", "address", broker_->address());
  WarningSink warnings;
  const auto server = EchoServer();
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) {
    log.Add(std::get<std::string>(message.Body().at(0)));
  });
  server->RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
  server->WatchDestination("tevra.First");
  server->WatchDestination("tevra.Second");
  ASSERT_TRUE(warnings.log.WaitFor(1));
  EXPECT_EQ(warnings.log.Events().at(0),
            "tevra.Second is not watched: message bus: the broker refuses a match rule");
  auto first = NewBus();
  first->StartServer("tevra.First");
  EXPECT_TRUE(log.WaitFor(1));
  for (int call = 0; call < 20; ++call) {
    EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
  }
  EXPECT_EQ(log.Events(), std::vector<std::string>{"tevra.First"});
  EXPECT_EQ(warnings.log.Events().size(), 1u);
  server->StopServer();
  first.reset();
}

TEST_F(BrokerTransportTest, GivesUpAtTheDeadlineOfABrokerThatHangs) {
  const auto server = EchoServer();
  auto known = NewBus();
  EXPECT_EQ(FailureOf(*known, Request("Echo")), "no failure");
  auto fresh = NewBus();
  broker_->Pause();
  EXPECT_EQ(FailureOf(*known, Request("Echo"), 50),
            "message bus: no answer from tevra.Test in time");
  EXPECT_EQ(FailureOf(*fresh, Request("Echo"), 50),
            "message bus: no answer from the broker in time");
  broker_->Continue();
  EXPECT_EQ(FailureOf(*known, Request("Echo")), "no failure");
  EXPECT_EQ(FailureOf(*fresh, Request("Echo")), "no failure");
}

TEST_F(BrokerTransportTest, FindsTheNextOwnerOfANameItKnew) {
  auto client = NewBus();
  for (int i = 0; i < 3; ++i) {
    const auto server = EchoServer();
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  }
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "message bus: no server for tevra.Test");
}

TEST_F(BrokerTransportTest, RefusesAServerOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can play another user";
  const Stranger stranger(broker_->address());
  ASSERT_TRUE(stranger.Serves());
  auto client = NewBus();
  const std::string refusal = "message bus: tevra.Test refused: it is served by user 65534";
  EXPECT_EQ(FailureOf(*client, Request("Echo")), refusal);
  MsgBusMsg one_way = Request("Echo");
  EXPECT_THROW(client->SendMsg(one_way), Exception);
  EXPECT_TRUE(client->HasServer(kDestination));
  platform_.Set("MsgBus", "service_user", "65534");
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
}

TEST_F(BrokerTransportTest, HearsNothingFromAServerOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can play another user";
  const Stranger stranger(broker_->address());
  ASSERT_TRUE(stranger.Serves());
  support::CapturingLog lines;
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
  auto deaf = Watcher(note);
  EventLog trusting_log;
  FunctionHandler trusting_note(
      [&trusting_log](IMsgBus&, MsgBusMsg& message) { trusting_log.Add(message.GetName()); });
  platform_.Set("MsgBus", "service_user", "65534");
  auto trusting = Watcher(trusting_note);
  ASSERT_TRUE(trusting_log.WaitFor(1));
  EXPECT_EQ(FailureOf(*trusting, Request("Echo")), "no failure");
  ASSERT_TRUE(trusting_log.WaitFor(2));
  EXPECT_EQ(trusting_log.Events(), (std::vector<std::string>{"DestinationAppeared", "Changed"}));
  // What comes from the broker later is there, so what came before would be.
  deaf->WatchDestination("tevra.Other");
  auto other = NewBus();
  other->StartServer("tevra.Other");
  ASSERT_TRUE(log.WaitFor(1));
  EXPECT_EQ(log.Events(), (std::vector<std::string>{"DestinationAppeared"}));
  deaf.reset();
  EXPECT_TRUE(lines.Contains("tevra.Test refused: it is served by user 65534"));
  trusting.reset();
}

TEST_F(BrokerTransportTest, CarriesAMebibyteAndRefusesMoreThanItsBound) {
  const auto server = EchoServer();
  auto client = NewBus();
  MsgBusMsg large = Request("Echo");
  large.Append(std::string(1 << 20, 'x'));
  EXPECT_EQ(FailureOf(*client, large), "no failure");
  MsgBusMsg giant = Request("Echo");
  giant.Append(std::string(2 << 20, 'x'));
  const std::string refusal = "message bus: the message to tevra.Test is too long";
  EXPECT_EQ(FailureOf(*client, giant), refusal);
  EXPECT_THROW(client->SendMsg(giant), Exception);
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
}

TEST_F(BrokerTransportTest, ServesOnWhenACallerVanishesBeforeItsReply) {
  const auto server = EchoServer();
  std::promise<void> entered;
  std::promise<void> released;
  FunctionHandler slow([&](IMsgBus& bus, MsgBusMsg& message) {
    entered.set_value();
    released.get_future().wait();
    bus.SendReply(MsgBusMsg::ReplyTo(message));
  });
  server->RegisterMessageHandler("Slow", kInterface, &slow);
  {
    RawPeer vanishing(broker_->address());
    vanishing.Call("Slow");
    entered.get_future().wait();
  }
  released.set_value();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
  server->UnregisterMessageHandler(&slow);
}

TEST_F(BrokerTransportTest, AnswersArgumentsOfForeignTypesWithAnError) {
  const auto server = EchoServer();
  sd_bus* bus = nullptr;
  ASSERT_GE(sd_bus_new(&bus), 0);
  ASSERT_GE(sd_bus_set_address(bus, broker_->address().c_str()), 0);
  ASSERT_GE(sd_bus_set_bus_client(bus, 1), 0);
  ASSERT_GE(sd_bus_start(bus), 0);
  sd_bus_error error = SD_BUS_ERROR_NULL;
  EXPECT_LT(
      sd_bus_call_method(bus, kDestination, kPath, kInterface, "Echo", &error, nullptr, "a{sv}", 0),
      0);
  EXPECT_STREQ(error.name, "org.freedesktop.DBus.Error.InvalidArgs");
  sd_bus_error_free(&error);
  sd_bus_close_unref(bus);
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
}

}  // namespace
}  // namespace tevra::msgbus

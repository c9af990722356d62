#include "tevra/msgbus/engine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "comes.h"
#include "support/event_log.h"
#include "support/function_handler.h"
#include "support/raw_socket.h"
#include "transport_fixture.h"

namespace tevra::msgbus {
namespace {

using support::EventLog;
using support::FunctionHandler;

std::ptrdiff_t EntriesOf(const char* directory) {
  using Entries = std::filesystem::directory_iterator;
  return std::distance(Entries(directory), Entries());
}

std::ptrdiff_t Threads() {
  return EntriesOf("/proc/self/task");
}

std::ptrdiff_t Descriptors() {
  return EntriesOf("/proc/self/fd");
}

class SharedEngine : public TransportTest {
 protected:
  SharedEngine() {
    server_ = NewBus();
    server_->RegisterMessageHandler("Echo", kInterface, &echo_);
    server_->RegisterMessageHandler("Tell", kInterface, &tell_);
    server_->StartServer(kDestination);
  }

  // A bus that hears of the server's coming and going and of its broadcasts.
  std::unique_ptr<MsgBus> Listener(FunctionHandler& handler) {
    auto bus = NewBus();
    bus->RegisterMessageHandler("Told", kInterface, &handler);
    for (const char* name : {IMsgBus::kDestinationAppeared, IMsgBus::kDestinationVanished}) {
      bus->RegisterMessageHandler(name, IMsgBus::kLocalInterface, &handler);
    }
    bus->WatchDestination(kDestination);
    return bus;
  }
  static FunctionHandler NoteIn(EventLog& log) {
    return FunctionHandler([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
  }

  FunctionHandler tell_{[](IMsgBus& bus, MsgBusMsg& message) {
    MsgBusMsg told(kInterface, "Told", "");
    bus.SendMsg(told);
    bus.SendReply(MsgBusMsg::ReplyTo(message));
  }};
  std::unique_ptr<MsgBus> server_;
};

TEST_F(SharedEngine, CostsAProcessOneThreadAndOneSetOfConnections) {
  EventLog log;
  FunctionHandler note = NoteIn(log);
  const auto first = Listener(note);
  ASSERT_TRUE(log.WaitFor(1));
  EXPECT_EQ(FailureOf(*first, Request("Echo")), "no failure");
  const auto threads = Threads();
  const auto descriptors = Descriptors();
  std::vector<std::unique_ptr<MsgBus>> others;
  for (int i = 0; i < 64; ++i) {
    others.push_back(Listener(note));
    EXPECT_EQ(FailureOf(*others.back(), Request("Echo")), "no failure");
  }
  ASSERT_TRUE(log.WaitFor(65));
  EXPECT_EQ(Threads(), threads);
  EXPECT_EQ(Descriptors(), descriptors);
}

TEST_F(SharedEngine, EndsWithTheLastOfItsBuses) {
  const auto threads = Threads();
  const auto descriptors = Descriptors();
  EventLog log;
  FunctionHandler note = NoteIn(log);
  for (int i = 0; i < 3; ++i) {
    auto first = Listener(note);
    auto second = Listener(note);
    EXPECT_EQ(FailureOf(*second, Request("Echo")), "no failure");
    first.reset();
    EXPECT_EQ(FailureOf(*second, Request("Tell")), "no failure");
    EXPECT_GT(Threads(), threads);
    second.reset();
    EXPECT_TRUE(Comes([&] { return Threads() == threads; }));
    // The server closes its ends when it sees ours go.
    EXPECT_TRUE(Comes([&] { return Descriptors() == descriptors; }));
  }
}

TEST_F(SharedEngine, TellsEveryBusAndALateOneThatTheDestinationIsThere) {
  EventLog first_log, second_log;
  FunctionHandler first_note = NoteIn(first_log);
  FunctionHandler second_note = NoteIn(second_log);
  const auto first = Listener(first_note);
  ASSERT_TRUE(first_log.WaitFor(1));
  const auto second = Listener(second_note);
  ASSERT_TRUE(second_log.WaitFor(1));
  EXPECT_EQ(FailureOf(*first, Request("Tell")), "no failure");
  server_.reset();
  for (EventLog* log : {&first_log, &second_log}) {
    ASSERT_TRUE(log->WaitFor(3));
    EXPECT_EQ(log->Events(),
              (std::vector<std::string>{"DestinationAppeared", "Told", "DestinationVanished"}));
  }
}

TEST_F(SharedEngine, TellsABusThatHasGoneNothing) {
  EventLog staying_log, gone_log;
  FunctionHandler staying_note = NoteIn(staying_log);
  FunctionHandler gone_note = NoteIn(gone_log);
  const auto staying = Listener(staying_note);
  auto gone = Listener(gone_note);
  ASSERT_TRUE(staying_log.WaitFor(1) && gone_log.WaitFor(1));
  gone.reset();
  EXPECT_EQ(FailureOf(*staying, Request("Tell")), "no failure");
  ASSERT_TRUE(staying_log.WaitFor(2));
  EXPECT_EQ(gone_log.Events().size(), 1u);
}

TEST_F(SharedEngine, RunsTheHandlersOfAllBusesOneAtATime) {
  std::atomic<int> running = 0, together = 0, done = 0;
  FunctionHandler handler([&](IMsgBus&, MsgBusMsg&) {
    if (++running > 1) ++together;
    std::this_thread::yield();
    --running;
    ++done;
  });
  std::vector<std::unique_ptr<MsgBus>> buses;
  for (int i = 0; i < 4; ++i) buses.push_back(Listener(handler));
  ASSERT_TRUE(Comes([&] { return done == 4; }));
  for (int i = 0; i < 50; ++i) EXPECT_EQ(FailureOf(*buses[0], Request("Tell")), "no failure");
  EXPECT_TRUE(Comes([&] { return done == 4 + 4 * 50; }));
  EXPECT_EQ(together, 0);
}

TEST_F(SharedEngine, LetsAHandlerDestroyTheLastBus) {
  const auto threads = Threads();
  std::unique_ptr<MsgBus> bus;
  std::promise<void> destroyed;
  std::promise<void> built;
  FunctionHandler handler([&](IMsgBus&, MsgBusMsg&) {
    built.get_future().wait();
    bus.reset();
    destroyed.set_value();
  });
  bus = Listener(handler);
  built.set_value();
  destroyed.get_future().wait();
  EXPECT_TRUE(Comes([&] { return Threads() == threads; }));
}

TEST_F(SharedEngine, LetsAHandlerDestroyABusThatServes) {
  const auto threads = Threads();
  std::unique_ptr<MsgBus> bus = NewBus();
  FunctionHandler handler([&](IMsgBus&, MsgBusMsg&) { bus.reset(); });
  bus->RegisterMessageHandler("End", kInterface, &handler);
  bus->StartServer("tevra.Other");
  EXPECT_NE(FailureOf(*NewBus(), MsgBusMsg(kInterface, "End", "tevra.Other")), "no failure");
  EXPECT_TRUE(Comes([&] { return Threads() == threads; }));
  EXPECT_FALSE(NewBus()->HasServer("tevra.Other"));
}

TEST_F(SharedEngine, LeavesNothingOfABusThatAHandlerDestroysWhileAnotherCallWaits) {
  class Destroying final : public IMessageHandler {
   public:
    explicit Destroying(std::unique_ptr<MsgBus>& bus) : bus_(bus) {}
    void HandleMessage(IMsgBus&, MsgBusMsg&) override { bus_.reset(); }
    bool IsDear() const override { return true; }

   private:
    std::unique_ptr<MsgBus>& bus_;
  };
  const auto threads = Threads();
  std::unique_ptr<MsgBus> bus = NewBus();
  std::promise<void> entered;
  std::promise<void> leave;
  FunctionHandler wait([&](IMsgBus&, MsgBusMsg&) {
    entered.set_value();
    leave.get_future().wait();
  });
  Destroying destroying(bus);
  bus->RegisterMessageHandler("Wait", kInterface, &wait);
  bus->RegisterMessageHandler("End", kInterface, &destroying);
  bus->StartServer("tevra.Other");
  const std::string path = platform_.RuntimeDir() + "/tevra.Other";
  support::RawSocket first = support::RawSocket::ConnectTo(path);
  first.Write(support::RawHello() + support::RawCall(kInterface, "Wait"));
  entered.get_future().wait();
  // Dear ones run in turn, so that one waits when the other ends the bus.
  support::RawSocket second = support::RawSocket::ConnectTo(path);
  support::RawSocket third = support::RawSocket::ConnectTo(path);
  for (auto* const client : {&second, &third}) {
    client->Write(support::RawHello() + support::RawCall(kInterface, "End"));
  }
  leave.set_value();
  EXPECT_TRUE(second.PeerCloses());
  EXPECT_TRUE(third.PeerCloses());
  EXPECT_TRUE(Comes([&] { return Threads() == threads; }));
}

TEST_F(SharedEngine, IsLeftByABusThatBeginsToServeAndGoesOnListening) {
  EventLog log;
  FunctionHandler note = NoteIn(log);
  auto both = Listener(note);
  ASSERT_TRUE(log.WaitFor(1));
  both->RegisterMessageHandler("Echo", kInterface, &echo_);
  both->StartServer("tevra.Other");
  ASSERT_TRUE(log.WaitFor(2)) << "it is told anew, by an engine of its own";
  EXPECT_EQ(FailureOf(*both, Request("Tell")), "no failure");
  ASSERT_TRUE(log.WaitFor(3));
  EXPECT_EQ(FailureOf(*NewBus(), MsgBusMsg(kInterface, "Echo", "tevra.Other")), "no failure");
  EXPECT_EQ(log.Events(),
            (std::vector<std::string>{"DestinationAppeared", "DestinationAppeared", "Told"}));
}

TEST_F(SharedEngine, IsAnotherForAnotherConfiguration) {
  EventLog log;
  FunctionHandler note = NoteIn(log);
  const auto first = Listener(note);
  platform_.Set("MsgBus", "timeout_ms", "4999");
  const auto threads = Threads();
  const auto second = Listener(note);
  EXPECT_EQ(Threads(), threads + 1);
  ASSERT_TRUE(log.WaitFor(2));
}

TEST_F(SharedEngine, ClosesConnectionsThatNoCallUses) {
  platform_.Set("MsgBus", "idle_timeout_ms", "20");
  EventLog log;
  FunctionHandler note = NoteIn(log);
  const auto bus = Listener(note);
  ASSERT_TRUE(log.WaitFor(1));
  const auto without = Descriptors();
  for (int i = 0; i < 3; ++i) {
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 4; ++caller) {
      callers.emplace_back([&] { EXPECT_EQ(FailureOf(*bus, Request("Echo")), "no failure"); });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_TRUE(Comes([&] { return Descriptors() == without; }));
  }
}

TEST_F(SharedEngine, KeepsConnectionsThatWereJustUsed) {
  platform_.Set("MsgBus", "idle_timeout_ms", "3600000");
  EventLog log;
  FunctionHandler note = NoteIn(log);
  const auto bus = Listener(note);
  ASSERT_TRUE(log.WaitFor(1));
  const auto without = Descriptors();
  EXPECT_EQ(FailureOf(*bus, Request("Echo")), "no failure");
  const auto with = Descriptors();
  EXPECT_GT(with, without);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(FailureOf(*bus, Request("Echo")), "no failure");
  EXPECT_EQ(Descriptors(), with);
}

}  // namespace
}  // namespace tevra::msgbus

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "direct_transport_fixture.h"
#include "support/event_log.h"
#include "support/function_handler.h"

namespace tevra::msgbus {
namespace {

using support::EventLog;
using support::FunctionHandler;

using DirectTransportFork = DirectTransportTest;

TEST_F(DirectTransportFork, WorksInAChildAfterForkAndStaysWholeInTheParent) {
  if (kUnderThreadSanitizer) GTEST_SKIP() << "the sanitizer allows no threads after fork";
  const auto server = EchoServer();
  auto client = NewBus();
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
  client->RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
  client->WatchDestination(kDestination);
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  ASSERT_TRUE(log.WaitFor(1));
  for (int i = 0; i < 3; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      bool good = FailureOf(*client, Request("Echo")) == "no failure";
      good = log.WaitFor(2) && good;  // the watch follows the bus
      client.reset();
      _exit(good ? 0 : 1);
    }
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  }
  client.reset();
}

TEST_F(DirectTransportFork, AChildThatNeverUsesTheBusKeepsNothingOfIt) {
  auto server = EchoServer();
  int hold[2];
  ASSERT_EQ(pipe2(hold, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(hold[1]);
    char byte = 0;
    [[maybe_unused]] const ssize_t ended = read(hold[0], &byte, 1);
    _exit(0);
  }
  // The lock and the listening socket are the parent's alone, so a successor may start.
  server.reset();
  server = EchoServer();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
  close(hold[1]);
  close(hold[0]);
  waitpid(child, nullptr, 0);
}

TEST_F(DirectTransportFork, AChildMayDestroyABusItNeverUsed) {
  auto server = EchoServer();
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    server.reset();
    _exit(0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
}

}  // namespace
}  // namespace tevra::msgbus

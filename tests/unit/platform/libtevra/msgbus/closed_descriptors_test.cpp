// A program that closes descriptors that it did not open, as daemons do that begin with
// closefrom(), while a bus is open.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/event_log.h"
#include "support/function_handler.h"
#include "support/private_dbus_daemon.h"
#include "tevra/osa/descriptor.h"
#include "transport_fixture.h"

namespace tevra::msgbus {
namespace {

using support::EventLog;
using support::FunctionHandler;

// The files that took the numbers: nothing may be written into them, read from them, and none may
// be closed.
class Bystanders {
 public:
  Bystanders() {
    for (int i = 0; i < 24; ++i) {
      const int file = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
      std::array<int, 2> sockets{-1, -1};
      socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data());
      [[maybe_unused]] const ssize_t sent = send(sockets[0], "unread", 6, MSG_NOSIGNAL);
      files_.push_back(file);
      sockets_.push_back(sockets);
    }
  }
  bool AreUnharmed() const {
    for (const int file : files_) {
      struct stat status {};
      if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size != 0) {
        return false;
      }
    }
    for (const auto& pair : sockets_) {
      std::array<char, 16> bytes{};
      if (recv(pair[0], bytes.data(), bytes.size(), MSG_DONTWAIT) >= 0 || errno != EAGAIN) {
        return false;
      }
      if (recv(pair[1], bytes.data(), bytes.size(), MSG_DONTWAIT) != 6) return false;
    }
    return true;
  }

 private:
  std::vector<int> files_;
  std::vector<std::array<int, 2>> sockets_;
};

class ClosedDescriptors : public TransportTest, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    if (kUnderThreadSanitizer) GTEST_SKIP() << "the sanitizer allows no threads after fork";
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a child inherits that allocator's locked mutexes from the server's thread";
#endif
    platform_.Set("MsgBus", "transport", GetParam());
    if (GetParam() == std::string("broker")) {
      broker_ = support::PrivateDbusDaemon::Start();
      if (!broker_) GTEST_SKIP() << "dbus-daemon is not installed";
      platform_.Set("MsgBus", "address", broker_->address());
    }
    const osa::Descriptor page(memfd_create("page", MFD_CLOEXEC));
    server_ = NewBus();
    server_->ShareDescriptor(kDestination, page.get());
    server_->RegisterMessageHandler("Echo", kInterface, &echo_);
    server_->RegisterMessageHandler("Tell", kInterface, &tell_);
    server_->StartServer(kDestination);
  }

  static int InChild(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);
      _exit(body());
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }

  // Closes everything under a bus that calls and listens; 0 when it recovers.
  static int CloseAllUnderABus() {
    EventLog log;
    FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
    auto bus = NewBus();
    bus->RegisterMessageHandler("Told", kInterface, &note);
    bus->RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
    bus->WatchDestination(kDestination);
    if (FailureOf(*bus, Request("Echo")) != "no failure" || !log.WaitFor(1)) return 1;

    for (int fd = 3; fd < 1024; ++fd) close(fd);
    const Bystanders bystanders;
    for (int i = 0; i < 3; ++i) {
      if (FailureOf(*bus, Request("Echo")) != "no failure") return 2;
    }
    if (!log.WaitFor(2))
      return 3;  // it has appeared again: there may be changes it did not hear of
    if (FailureOf(*bus, Request("Tell")) != "no failure" || !log.WaitFor(3)) return 4;
    bus.reset();
    return bystanders.AreUnharmed() ? 0 : 5;
  }

  FunctionHandler tell_{[](IMsgBus& bus, MsgBusMsg& message) {
    MsgBusMsg told(kInterface, "Told", "");
    bus.SendMsg(told);
    bus.SendReply(MsgBusMsg::ReplyTo(message));
  }};
  std::unique_ptr<support::PrivateDbusDaemon> broker_;
  std::unique_ptr<MsgBus> server_;
};

INSTANTIATE_TEST_SUITE_P(OnTransport, ClosedDescriptors, testing::Values("direct", "broker"),
                         [](const auto& transport) { return std::string(transport.param); });

TEST_P(ClosedDescriptors, AreOpenedAnewAndTheirNumbersLeftAlone) {
  EXPECT_EQ(InChild(CloseAllUnderABus), 0);
}

TEST_P(ClosedDescriptors, DoNoHarmToABusThatIsDestroyedAtOnce) {
  EXPECT_EQ(InChild([] {
              auto bus = NewBus();
              bus->WatchDestination(kDestination);
              if (FailureOf(*bus, Request("Echo")) != "no failure") return 1;
              for (int fd = 3; fd < 1024; ++fd) close(fd);
              const Bystanders bystanders;
              bus.reset();
              return bystanders.AreUnharmed() ? 0 : 2;
            }),
            0);
}

}  // namespace
}  // namespace tevra::msgbus

#ifndef MSGBUS_HOSTILE_SERVER_H_
#define MSGBUS_HOSTILE_SERVER_H_

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "support/raw_socket.h"
#include "transport_fixture.h"

namespace tevra::msgbus {

using support::RawFrame;
using support::RawSocket;

// A destination whose server does what the test says with each connection, on a thread of its own.
class HostileServer {
 public:
  using Behaviour = std::function<void(RawSocket& client)>;

  HostileServer(const std::string& path, Behaviour behaviour) : behaviour_(std::move(behaviour)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(fd_, 64), 0);
    thread_ = std::thread([this] { Run(); });
  }
  ~HostileServer() {
    shutdown(fd_, SHUT_RDWR);
    thread_.join();
    close(fd_);
  }

 private:
  void Run() {
    for (;;) {
      const int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) return;
      RawSocket socket(client);
      behaviour_(socket);
    }
  }

  const Behaviour behaviour_;
  int fd_ = -1;
  std::thread thread_;
};

// Takes a client in and reads its first call.
inline void Welcome(RawSocket& client) {
  client.ReadFrame();
  std::string welcome;
  wire::AppendWelcome(&welcome, 0, 1, 0);
  client.Write(welcome);
  client.ReadFrame();
}
// The answer to that call.
inline std::string RawReply(const std::vector<MsgBusMsg::Value>& values) {
  return RawFrame({wire::Kind::kReply, 0, 1, {}, {}, {}}, values);
}

}  // namespace tevra::msgbus

#endif  // MSGBUS_HOSTILE_SERVER_H_

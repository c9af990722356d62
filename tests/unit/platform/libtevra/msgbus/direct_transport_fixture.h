#ifndef MSGBUS_DIRECT_TRANSPORT_FIXTURE_H_
#define MSGBUS_DIRECT_TRANSPORT_FIXTURE_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/raw_socket.h"
#include "transport_fixture.h"

namespace tevra::msgbus {

using support::RawCall;
using support::RawFrame;
using support::RawHello;
using support::RawLength;
using support::RawSocket;

// Tests of the direct transport, whose connections they also make by hand.
class DirectTransportTest : public TransportTest {
 protected:
  std::string SocketPath() const { return platform_.RuntimeDir() + "/" + kDestination; }
  RawSocket GreetedClient(uint8_t flags = 0) {
    RawSocket client = RawSocket::ConnectTo(SocketPath());
    client.Write(RawHello(flags));
    EXPECT_TRUE(IsWelcome(client.ReadFrame()));
    return client;
  }
  // Connects as a user with these groups; everyone can reach the socket. For root only.
  RawSocket ConnectAs(uid_t uid, const std::vector<gid_t>& groups) {
    EXPECT_EQ(chmod(platform_.Dir().Path().c_str(), 0755), 0);
    return RawSocket::ConnectAs(SocketPath(), uid, groups);
  }
  RawSocket GreetedClientAs(uid_t uid, const std::vector<gid_t>& groups) {
    RawSocket client = ConnectAs(uid, groups);
    client.Write(RawHello());
    EXPECT_TRUE(IsWelcome(client.ReadFrame()));
    return client;
  }
  // The text of the refusal that a server sends by itself; empty when it sends none.
  static std::string RefusalTo(RawSocket& client) {
    const std::string body = client.ReadFrame();
    const auto frame = wire::ParseBody(body);
    const bool is_refusal = frame && frame->kind == wire::Kind::kRefusal;
    return is_refusal ? std::string(frame->member) + ": " + wire::ErrorText(*frame) : "";
  }
  static bool IsWelcome(const std::string& body) {
    return !body.empty() && body[0] == static_cast<char>(wire::Kind::kWelcome);
  }
};

}  // namespace tevra::msgbus

#endif  // MSGBUS_DIRECT_TRANSPORT_FIXTURE_H_

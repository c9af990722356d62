#ifndef MSGBUS_DIRECT_TRANSPORT_FIXTURE_H_
#define MSGBUS_DIRECT_TRANSPORT_FIXTURE_H_

#include <gtest/gtest.h>

#include <string>

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
  static bool IsWelcome(const std::string& body) {
    return !body.empty() && body[0] == static_cast<char>(wire::Kind::kWelcome);
  }
};

}  // namespace tevra::msgbus

#endif  // MSGBUS_DIRECT_TRANSPORT_FIXTURE_H_

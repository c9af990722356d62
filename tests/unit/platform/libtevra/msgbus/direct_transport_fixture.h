#ifndef MSGBUS_DIRECT_TRANSPORT_FIXTURE_H_
#define MSGBUS_DIRECT_TRANSPORT_FIXTURE_H_

#include <gtest/gtest.h>

#include <string>

#include "raw_socket.h"
#include "transport_fixture.h"

namespace tevra::msgbus {

inline constexpr const char* kHello = "AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n";

// Tests of the direct transport, whose connections they also make by hand.
class DirectTransportTest : public TransportTest {
 protected:
  std::string SocketPath() const { return platform_.RuntimeDir() + "/" + kDestination; }
  RawSocket HandshakenClient() {
    RawSocket client = RawSocket::ConnectTo(SocketPath());
    client.Write(std::string(1, '\0') + kHello);
    EXPECT_NE(client.ReadUntil("OK ").find("OK "), std::string::npos);
    return client;
  }
};

}  // namespace tevra::msgbus

#endif  // MSGBUS_DIRECT_TRANSPORT_FIXTURE_H_

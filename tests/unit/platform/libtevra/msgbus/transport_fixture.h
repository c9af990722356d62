#ifndef MSGBUS_TRANSPORT_FIXTURE_H_
#define MSGBUS_TRANSPORT_FIXTURE_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/function_handler.h"
#include "support/platform_fixture.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/sanitizer.h"

namespace tevra::msgbus {

inline constexpr const char* kDestination = "tevra.Test";
inline constexpr const char* kInterface = "tevra.test.ITest";

#if defined(TEVRA_THREAD_SANITIZER)
inline constexpr bool kUnderThreadSanitizer = true;
#else
inline constexpr bool kUnderThreadSanitizer = false;
#endif

// What the tests of both transports need: buses on a platform of the test's own, a server that
// echoes, and the failure of a call as a text.
class TransportTest : public ::testing::Test {
 protected:
  static std::unique_ptr<MsgBus> NewBus() { return std::make_unique<MsgBus>(); }
  static MsgBusMsg Request(const std::string& name) {
    return MsgBusMsg(kInterface, name, kDestination);
  }
  static std::unique_ptr<MsgBusMsg> Call(MsgBus& bus, MsgBusMsg message, int timeout_ms = -1) {
    std::unique_ptr<MsgBusMsg> reply;
    bus.SendMsgWaitForReply(message, reply, timeout_ms);
    return reply;
  }
  static std::string FailureOf(MsgBus& bus, const MsgBusMsg& message, int timeout_ms = -1) {
    try {
      const auto reply = Call(bus, message, timeout_ms);
      return reply->IsError() ? "error reply " + reply->ErrorName() : "no failure";
    } catch (const osa::Exception& failure) {
      return failure.what();
    }
  }
  // A server that echoes its arguments under "Echo".
  std::unique_ptr<MsgBus> EchoServer() {
    auto bus = NewBus();
    bus->RegisterMessageHandler("Echo", kInterface, &echo_);
    bus->StartServer(kDestination);
    return bus;
  }

  support::PlatformFixture platform_;
  support::FunctionHandler echo_{[](IMsgBus& bus, MsgBusMsg& message) {
    MsgBusMsg reply = MsgBusMsg::ReplyTo(message);
    for (const MsgBusMsg::Value& value : message.Body()) reply.Append(value);
    bus.SendReply(reply);
  }};
};

}  // namespace tevra::msgbus

#endif  // MSGBUS_TRANSPORT_FIXTURE_H_

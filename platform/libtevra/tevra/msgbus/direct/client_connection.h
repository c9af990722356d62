#ifndef TEVRA_MSGBUS_DIRECT_CLIENT_CONNECTION_H_
#define TEVRA_MSGBUS_DIRECT_CLIENT_CONNECTION_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/connection_pool.h"
#include "tevra/msgbus/connection_refused.h"
#include "tevra/msgbus/deadline.h"
#include "tevra/msgbus/msg_bus_msg.h"
#include "tevra/msgbus/owned_socket.h"
#include "tevra/msgbus/wire/frame.h"
#include "tevra/msgbus/wire/frame_reader.h"

namespace tevra::msgbus {

// A client's connection for calls, which waits in send and recv for as long as the deadline allows.
// Not synchronised.
class ClientConnection final {
 public:
  // Connects and says hello. Throws tevra::osa::Exception.
  ClientConnection(const BusConfig& config, const std::string& destination, Deadline deadline);

  // After anything but kDone the connection is of no further use.
  Outcome Call(const MsgBusMsg& message, Deadline deadline, std::unique_ptr<MsgBusMsg>* answer);
  Outcome Post(const MsgBusMsg& message, Deadline deadline);
  // Unread input is an answer that belongs to no call; the next call must not take it for its own.
  bool IsReusable() const { return !reader_.HasMore(); }

 private:
  void Connect(const BusConfig& config, Deadline deadline);
  void SayHello(Deadline deadline);
  Outcome Send(const wire::Frame& frame, const std::vector<MsgBusMsg::Value>& values,
               Deadline deadline);
  Outcome Receive(Deadline deadline, std::optional<wire::Frame>* frame);
  bool SetTimeout(Deadline deadline);

  const std::string destination_;
  OwnedSocket socket_;
  wire::FrameReader reader_;
  std::string output_;                    // kept for its memory
  std::chrono::milliseconds timeout_{0};  // the socket's
  uint32_t serial_ = 0;
  uint64_t instance_ = 0;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_CLIENT_CONNECTION_H_

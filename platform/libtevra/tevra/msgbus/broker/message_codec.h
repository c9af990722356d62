#ifndef TEVRA_MSGBUS_BROKER_MESSAGE_CODEC_H_
#define TEVRA_MSGBUS_BROKER_MESSAGE_CODEC_H_

#include <systemd/sd-bus.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "tevra/msgbus/msg_bus_msg.h"

namespace tevra::msgbus {

struct UnrefMessage {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, UnrefMessage>;

// Between MsgBusMsg and sd-bus's messages. A message belongs to the bus object it was made for and
// is touched by one thread at a time, as that object is. What cannot be made (a name that D-Bus
// does not allow, no memory) throws tevra::osa::Exception.
class MessageCodec final {
 public:
  // Without a destination for a peer who is the only one there.
  static MessagePtr EncodeCall(sd_bus* bus, const MsgBusMsg& message,
                               const std::string& destination, bool expects_reply);
  static MessagePtr EncodeSignal(sd_bus* bus, const MsgBusMsg& message);
  // A reply or an error, by the type of `reply`.
  static MessagePtr EncodeAnswer(sd_bus_message* call, const MsgBusMsg& reply);

  // A message with the names and the serial of `wire`, a call or a signal.
  static MsgBusMsg NamesOf(sd_bus_message* wire, const std::string& destination);
  // Appends the body of `wire` to `message`. False when it holds types that MsgBusMsg has not, or
  // more than `max_bytes`; `message` then holds a part of it.
  static bool DecodeBody(sd_bus_message* wire, size_t max_bytes, MsgBusMsg* message);
  // The answer to `request` that `wire`, a reply or an error, holds; throws when it is malformed.
  static std::unique_ptr<MsgBusMsg> DecodeAnswer(sd_bus_message* wire, size_t max_bytes,
                                                 const MsgBusMsg& request);

  // "/" and the interface name, dots as slashes.
  static std::string PathOf(const std::string& interface);
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_BROKER_MESSAGE_CODEC_H_

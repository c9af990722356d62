#ifndef TEVRA_MSGBUS_WIRE_FRAME_H_
#define TEVRA_MSGBUS_WIRE_FRAME_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tevra/msgbus/msg_bus_msg.h"

namespace tevra::msgbus::wire {

// The version that this code speaks. Hello, welcome and refusal keep their form in every version.
inline constexpr uint32_t kVersion = 1;
inline constexpr size_t kLengthBytes = 4;

enum class Kind : uint8_t {
  kHello = 1,    // a client's first frame; the serial is the version
  kWelcome = 2,  // a server's first frame; likewise
  kRefusal = 3,  // a server's only frame
  kCall = 4,
  kReply = 5,
  kError = 6,
  kSignal = 7,
};

// Flags, each of one kind.
inline constexpr uint8_t kWantsBroadcasts = 1;  // hello
inline constexpr uint8_t kHasDescriptor = 1;    // welcome
inline constexpr uint8_t kWantsNoReply = 1;     // call

// One frame without its length; docs/reference/bus.md describes it byte by byte. The texts lie in
// whatever was parsed. Interface and member name a call or signal; a refusal and an error have
// their name in `member`.
struct Frame {
  Kind kind{};
  uint8_t flags = 0;
  uint32_t serial = 0;
  std::string_view interface;
  std::string_view member;
  std::string_view values;  // not looked into yet
};

// Nothing when `body` is none of the above.
std::optional<Frame> ParseBody(std::string_view body);
// Appends the values to `message`; false when they are malformed, and `message` then holds a part.
bool ReadValues(std::string_view values, MsgBusMsg* message);

// Appends a whole frame to `out`; `frame.values` plays no part.
void AppendFrame(std::string* out, const Frame& frame, const std::vector<MsgBusMsg::Value>& values);

uint32_t LoadNumber(const char* bytes);  // the four bytes of a length or a number

}  // namespace tevra::msgbus::wire

#endif  // TEVRA_MSGBUS_WIRE_FRAME_H_

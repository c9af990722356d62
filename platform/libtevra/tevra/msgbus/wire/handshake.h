#ifndef TEVRA_MSGBUS_WIRE_HANDSHAKE_H_
#define TEVRA_MSGBUS_WIRE_HANDSHAKE_H_

#include <cstdint>
#include <string>

#include "tevra/msgbus/wire/frame.h"

namespace tevra::msgbus::wire {

// Error names of refusals; besides them BusError::kAccessDenied.
inline constexpr const char* kOtherVersion = "tevra.msgbus.Error.Version";
inline constexpr const char* kTooManyConnections = "tevra.msgbus.Error.Limit";

// The caller's roles, as the welcome tells them.
inline constexpr uint32_t kServiceRole = 1;
inline constexpr uint32_t kAdminRole = 2;

// What a server's first frame says: who it is, or why it will not have us.
struct Welcome {
  uint64_t instance = 0;
  bool has_descriptor = false;
  std::string error_name;  // empty: we are welcome
  std::string error_text;
};

Frame Hello(uint8_t flags);
// Why a server must refuse this first frame of a client; empty when it need not.
std::string FlawOfHello(const Frame& frame);
void AppendWelcome(std::string* out, uint8_t flags, uint64_t instance, uint32_t roles);
void AppendRefusal(std::string* out, const std::string& error_name, const std::string& text);
Welcome ReadWelcome(const Frame& frame);

// Of a refusal or an error.
std::string ErrorText(const Frame& frame);

}  // namespace tevra::msgbus::wire

#endif  // TEVRA_MSGBUS_WIRE_HANDSHAKE_H_

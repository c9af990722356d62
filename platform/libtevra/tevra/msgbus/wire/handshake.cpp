#include "tevra/msgbus/wire/handshake.h"

#include "tevra/core/utf8.h"
#include "tevra/msgbus/bus_error.h"

namespace tevra::msgbus::wire {
namespace {

constexpr const char* kMagic = "tevra.msgbus";

std::string Versions(const char* speaker, uint32_t version) {
  return std::string(speaker) + " speaks version " + std::to_string(version) +
         " of the bus, this side version " + std::to_string(kVersion);
}

}  // namespace

Frame Hello(uint8_t flags) {
  return {Kind::kHello, flags, kVersion, kMagic, {}, {}};
}

std::string FlawOfHello(const Frame& frame) {
  if (frame.kind != Kind::kHello || frame.interface != kMagic) return "that was no hello";
  return frame.serial == kVersion ? "" : Versions("the client", frame.serial);
}

void AppendWelcome(std::string* out, uint8_t flags, uint64_t instance, uint32_t roles) {
  AppendFrame(out, {Kind::kWelcome, flags, kVersion, kMagic, {}, {}},
              {static_cast<uint32_t>(instance), static_cast<uint32_t>(instance >> 32), roles});
}

void AppendRefusal(std::string* out, const std::string& error_name, const std::string& text) {
  AppendFrame(out, {Kind::kRefusal, 0, kVersion, kMagic, error_name, {}}, {text});
}

Welcome ReadWelcome(const Frame& frame) {
  Welcome welcome;
  if (frame.kind == Kind::kRefusal) {
    welcome.error_name = frame.member.empty() ? BusError::kFailed : std::string(frame.member);
    welcome.error_text = core::ValidUtf8(ErrorText(frame));
    return welcome;
  }
  MsgBusMsg values(kMagic, "Welcome", "");
  if (frame.kind == Kind::kWelcome && frame.serial != kVersion) {
    welcome.error_name = kOtherVersion;
    welcome.error_text = Versions("the server", frame.serial);
  } else if (frame.kind != Kind::kWelcome || frame.interface != kMagic ||
             !ReadValues(frame.values, &values) || values.Signature() != "uuu") {
    welcome.error_name = BusError::kFailed;
    welcome.error_text = "that was no welcome";
  } else {
    welcome.instance = uint64_t{std::get<uint32_t>(values.Body()[0])} |
                       uint64_t{std::get<uint32_t>(values.Body()[1])} << 32;
    welcome.has_descriptor = (frame.flags & kHasDescriptor) != 0;
  }
  return welcome;
}

std::string ErrorText(const Frame& frame) {
  MsgBusMsg values(kMagic, "Error", "");
  const bool has_text = ReadValues(frame.values, &values) && values.Signature() == "s";
  return has_text ? std::get<std::string>(values.Body()[0]) : std::string();
}

}  // namespace tevra::msgbus::wire

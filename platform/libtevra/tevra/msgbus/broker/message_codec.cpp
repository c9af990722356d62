#include "tevra/msgbus/broker/message_codec.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "tevra/core/secret_text.h"
#include "tevra/core/utf8.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

void Check(int result, const char* what) {
  if (result < 0) throw osa::Exception("message bus: %s: %s", what, strerror(-result));
}

struct Appender {
  sd_bus_message* wire;

  int operator()(bool value) const {
    const int number = value ? 1 : 0;
    return sd_bus_message_append_basic(wire, 'b', &number);
  }
  int operator()(int32_t value) const { return sd_bus_message_append_basic(wire, 'i', &value); }
  int operator()(uint32_t value) const { return sd_bus_message_append_basic(wire, 'u', &value); }
  int operator()(const std::string& value) const {
    return sd_bus_message_append_array(wire, 'y', value.data(), value.size());
  }
  int operator()(const std::vector<std::string>& value) const {
    int result = sd_bus_message_open_container(wire, 'a', "ay");
    for (const std::string& entry : value) {
      if (result < 0) return result;
      result = (*this)(entry);
    }
    return result < 0 ? result : sd_bus_message_close_container(wire);
  }
};

void AppendBody(sd_bus_message* wire, const MsgBusMsg& message) {
  Check(sd_bus_message_sensitive(wire), "cannot mark a message");
  for (const MsgBusMsg::Value& value : message.Body()) {
    Check(std::visit(Appender{wire}, value), "cannot append to a message");
  }
}

// Reads bodies and keeps count of their bytes.
class BodyReader final {
 public:
  BodyReader(sd_bus_message* wire, size_t max_bytes) : wire_(wire), left_(max_bytes) {}

  bool ReadAll(MsgBusMsg* message) {
    const char* signature = sd_bus_message_get_signature(wire_, 1);
    if (signature == nullptr) return false;
    for (std::string_view left = signature; !left.empty();) {
      const size_t letters = ReadOne(left, message);
      if (letters == 0) return false;
      left.remove_prefix(letters);
    }
    return true;
  }

 private:
  // Letters of the signature that were read; 0 when the first ones are none of ours, or the body is
  // too long or malformed.
  size_t ReadOne(std::string_view signature, MsgBusMsg* message) {
    if (signature.starts_with("ay")) {
      std::string text;
      const core::ScopedWipe wipe(text);
      return Text(&text) && Take(message, text) ? 2 : 0;
    }
    if (signature.starts_with("aay")) {
      std::vector<std::string> list;
      return List(&list) && Take(message, std::move(list)) ? 3 : 0;
    }
    uint32_t value = 0;
    if (signature[0] != 'b' && signature[0] != 'i' && signature[0] != 'u') return 0;
    if (!Basic(signature[0], &value)) return 0;
    if (signature[0] == 'b') return Take(message, value != 0) ? 1 : 0;
    if (signature[0] == 'i') return Take(message, static_cast<int32_t>(value)) ? 1 : 0;
    return Take(message, value) ? 1 : 0;
  }

  bool Basic(char type, void* value) {
    return Spend(4) && sd_bus_message_read_basic(wire_, type, value) > 0;
  }

  bool Text(std::string* text) {
    const void* bytes = nullptr;
    size_t size = 0;
    if (sd_bus_message_read_array(wire_, 'y', &bytes, &size) < 0 || !Spend(size + 4)) return false;
    if (size > 0) text->assign(static_cast<const char*>(bytes), size);
    return true;
  }

  bool List(std::vector<std::string>* list) {
    if (!Spend(4) || sd_bus_message_enter_container(wire_, 'a', "ay") < 0) return false;
    int end = 0;
    while ((end = sd_bus_message_at_end(wire_, 0)) == 0) {
      if (!Text(&list->emplace_back())) return false;
    }
    return end > 0 && sd_bus_message_exit_container(wire_) >= 0;
  }

  bool Spend(size_t bytes) {
    if (bytes > left_) return false;
    left_ -= bytes;
    return true;
  }

  static bool Take(MsgBusMsg* message, MsgBusMsg::Value value) {
    message->Append(std::move(value));
    return true;
  }

  sd_bus_message* const wire_;
  size_t left_;
};

}  // namespace

MessagePtr MessageCodec::EncodeCall(sd_bus* bus, const MsgBusMsg& message,
                                    const std::string& destination, bool expects_reply) {
  sd_bus_message* wire = nullptr;
  const int made = sd_bus_message_new_method_call(
      bus, &wire, destination.empty() ? nullptr : destination.c_str(),
      PathOf(message.GetInterface()).c_str(), message.GetInterface().c_str(),
      message.GetName().c_str());
  Check(made, "cannot make a call");
  MessagePtr owned(wire);
  Check(sd_bus_message_set_auto_start(wire, 0), "cannot make a call");
  if (!expects_reply) Check(sd_bus_message_set_expect_reply(wire, 0), "cannot make a call");
  AppendBody(wire, message);
  return owned;
}

MessagePtr MessageCodec::EncodeSignal(sd_bus* bus, const MsgBusMsg& message) {
  sd_bus_message* wire = nullptr;
  const int made =
      sd_bus_message_new_signal(bus, &wire, PathOf(message.GetInterface()).c_str(),
                                message.GetInterface().c_str(), message.GetName().c_str());
  Check(made, "cannot make a signal");
  MessagePtr owned(wire);
  AppendBody(wire, message);
  return owned;
}

MessagePtr MessageCodec::EncodeAnswer(sd_bus_message* call, const MsgBusMsg& reply) {
  sd_bus_message* wire = nullptr;
  if (!reply.IsError()) {
    Check(sd_bus_message_new_method_return(call, &wire), "cannot make a reply");
    MessagePtr owned(wire);
    AppendBody(wire, reply);
    return owned;
  }
  const std::string& given = reply.ErrorName();
  const char* name =
      sd_bus_interface_name_is_valid(given.c_str()) > 0 ? given.c_str() : BusError::kFailed;
  const std::string text = core::ValidUtf8(reply.ErrorText());
  const sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(name, text.c_str());
  Check(sd_bus_message_new_method_error(call, &wire, &error), "cannot make an error");
  return MessagePtr(wire);
}

MsgBusMsg MessageCodec::NamesOf(sd_bus_message* wire, const std::string& destination) {
  const char* interface = sd_bus_message_get_interface(wire);
  const char* member = sd_bus_message_get_member(wire);
  MsgBusMsg message(interface != nullptr ? interface : "", member != nullptr ? member : "",
                    destination);
  uint64_t cookie = 0;
  sd_bus_message_get_cookie(wire, &cookie);
  message.SetSerial(static_cast<uint32_t>(cookie));
  return message;
}

bool MessageCodec::DecodeBody(sd_bus_message* wire, size_t max_bytes, MsgBusMsg* message) {
  return BodyReader(wire, max_bytes).ReadAll(message);
}

std::unique_ptr<MsgBusMsg> MessageCodec::DecodeAnswer(sd_bus_message* wire, size_t max_bytes,
                                                      const MsgBusMsg& request) {
  if (const sd_bus_error* error = sd_bus_message_get_error(wire)) {
    const char* text = error->message != nullptr ? error->message : "";
    return std::make_unique<MsgBusMsg>(MsgBusMsg::ErrorTo(request, error->name, text));
  }
  auto reply = std::make_unique<MsgBusMsg>(MsgBusMsg::ReplyTo(request));
  if (!DecodeBody(wire, max_bytes, reply.get())) {
    throw osa::Exception("message bus: malformed reply from %s", request.GetDestination().c_str());
  }
  uint64_t serial = 0;
  sd_bus_message_get_cookie(wire, &serial);
  reply->SetSerial(static_cast<uint32_t>(serial));
  return reply;
}

std::string MessageCodec::PathOf(const std::string& interface) {
  std::string path = "/" + interface;
  std::replace(path.begin(), path.end(), '.', '/');
  return path;
}

}  // namespace tevra::msgbus

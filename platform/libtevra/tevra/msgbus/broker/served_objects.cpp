#include "tevra/msgbus/broker/served_objects.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <set>
#include <string_view>

#include "tevra/core/utf8.h"
#include "tevra/msgbus/interface_xml.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr std::string_view kIntrospectable = "org.freedesktop.DBus.Introspectable";
constexpr std::string_view kPeer = "org.freedesktop.DBus.Peer";
constexpr std::string_view kProperties = "org.freedesktop.DBus.Properties";
constexpr size_t kSmallReply = 1024;  // an error, or some counters
// Errors repeat names of the caller's, which may be as long as a message.
constexpr size_t kMaxErrorText = 900;

constexpr const char* kOfEveryObject =
    "  <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
    "    <method name=\"Introspect\">\n"
    "      <arg name=\"xml_data\" type=\"s\" direction=\"out\"/>\n"
    "    </method>\n"
    "  </interface>\n"
    "  <interface name=\"org.freedesktop.DBus.Peer\">\n"
    "    <method name=\"Ping\"/>\n"
    "    <method name=\"GetMachineId\">\n"
    "      <arg name=\"machine_uuid\" type=\"s\" direction=\"out\"/>\n"
    "    </method>\n"
    "  </interface>\n";
constexpr const char* kOfServedObjects =
    "  <interface name=\"org.freedesktop.DBus.Properties\">\n"
    "    <method name=\"Get\">\n"
    "      <arg name=\"interface_name\" type=\"s\" direction=\"in\"/>\n"
    "      <arg name=\"property_name\" type=\"s\" direction=\"in\"/>\n"
    "      <arg name=\"value\" type=\"v\" direction=\"out\"/>\n"
    "    </method>\n"
    "    <method name=\"GetAll\">\n"
    "      <arg name=\"interface_name\" type=\"s\" direction=\"in\"/>\n"
    "      <arg name=\"properties\" type=\"a{sv}\" direction=\"out\"/>\n"
    "    </method>\n"
    "    <method name=\"Set\">\n"
    "      <arg name=\"interface_name\" type=\"s\" direction=\"in\"/>\n"
    "      <arg name=\"property_name\" type=\"s\" direction=\"in\"/>\n"
    "      <arg name=\"value\" type=\"v\" direction=\"in\"/>\n"
    "    </method>\n"
    "  </interface>\n";

void Check(int result) {
  if (result < 0) throw osa::Exception("message bus: cannot make a reply: %s", strerror(-result));
}

std::string OrEmpty(const char* text) {
  return text != nullptr ? text : "";
}

// The inverse of MessageCodec::PathOf.
std::string InterfaceAt(const std::string& path) {
  std::string interface = path.substr(1);
  std::replace(interface.begin(), interface.end(), '/', '.');
  return interface;
}

ServedObjects::Reply Refusal(sd_bus_message* call, const char* name, const std::string& text) {
  sd_bus_message* reply = nullptr;
  const std::string valid = core::ValidUtf8(text.substr(0, kMaxErrorText));
  const sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(name, valid.c_str());
  Check(sd_bus_message_new_method_error(call, &reply, &error));
  return {MessagePtr(reply), kSmallReply};
}

ServedObjects::Reply EmptyReply(sd_bus_message* call) {
  sd_bus_message* reply = nullptr;
  Check(sd_bus_message_new_method_return(call, &reply));
  return {MessagePtr(reply), kSmallReply};
}

bool Has(sd_bus_message* call, const char* signature) {
  return OrEmpty(sd_bus_message_get_signature(call, 1)) == signature;
}

std::string TypesText(const std::string& member, const std::string& types, sd_bus_message* call) {
  return member + " takes (" + types + "), not (" + OrEmpty(sd_bus_message_get_signature(call, 1)) +
         ")";
}

// What a member of org.freedesktop.DBus.Properties takes; null for one that it has not.
const char* TypesOfPropertyCall(const std::string& member) {
  if (member == "Get") return "ss";
  if (member == "GetAll") return "s";
  return member == "Set" ? "ssv" : nullptr;
}

ServedObjects::Reply NoSuchMethod(sd_bus_message* call, std::string_view interface) {
  return Refusal(call, SD_BUS_ERROR_UNKNOWN_METHOD,
                 "no such operation: " + std::string(interface) + "." +
                     OrEmpty(sd_bus_message_get_member(call)));
}

std::string ReadText(sd_bus_message* call) {
  const char* text = nullptr;
  return sd_bus_message_read_basic(call, 's', &text) > 0 ? text : "";
}

}  // namespace

ServedObjects::Reply ServedObjects::Answer(sd_bus_message* call, const Credentials& caller) const {
  const std::string path = OrEmpty(sd_bus_message_get_path(call));
  const std::string interface = OrEmpty(sd_bus_message_get_interface(call));
  const std::string object = InterfaceAt(path);
  const bool is_served = requests_->handlers().HasInterface(object);
  if (is_served && interface == object) return {};
  if (!is_served && !IsAbove(path)) {
    return Refusal(call, SD_BUS_ERROR_UNKNOWN_OBJECT, "there is no object " + path);
  }
  if (interface == kIntrospectable) return Introspect(call, path);
  if (interface == kProperties && is_served) return AnswerProperties(call, object, caller);
  return Refusal(call, SD_BUS_ERROR_UNKNOWN_INTERFACE,
                 "the object " + path + " has no interface \"" + interface + "\"");
}

std::string ServedObjects::WrongTypes(sd_bus_message* call) const {
  const ServedInterface* const served =
      FindDescription(OrEmpty(sd_bus_message_get_interface(call)));
  if (served == nullptr) return "";
  const std::string member = OrEmpty(sd_bus_message_get_member(call));
  for (const ServedOperation& operation : served->operations) {
    if (operation.member != member) continue;
    const std::string types = DbusTypesOf(operation.arguments);
    return Has(call, types.c_str()) ? "" : TypesText(member, types, call);
  }
  return "";
}

bool ServedObjects::IsAbove(const std::string& path) const {
  if (path == "/") return true;
  const std::string prefix = InterfaceAt(path) + ".";
  const std::set<std::string> interfaces = requests_->handlers().Interfaces();
  const auto below = interfaces.lower_bound(prefix);
  return below != interfaces.end() && below->starts_with(prefix);
}

const ServedInterface* ServedObjects::FindDescription(const std::string& interface) const {
  const auto found = described_.find(interface);
  return found != described_.end() ? &found->second : nullptr;
}

ServedObjects::Reply ServedObjects::Introspect(sd_bus_message* call,
                                               const std::string& path) const {
  if (OrEmpty(sd_bus_message_get_member(call)) != "Introspect") {
    return NoSuchMethod(call, kIntrospectable);
  }
  if (!Has(call, "")) {
    return Refusal(call, SD_BUS_ERROR_INVALID_ARGS, TypesText("Introspect", "", call));
  }
  std::string xml = kOfEveryObject;
  const std::string object = InterfaceAt(path);
  const std::string prefix = object.empty() ? "" : object + ".";
  std::set<std::string> children;
  for (const std::string& interface : requests_->handlers().Interfaces()) {
    if (interface == object) {
      const ServedInterface* const served = FindDescription(interface);
      xml += kOfServedObjects +
             InterfaceXml::Of(served != nullptr ? *served : ServedInterface{interface});
    } else if (interface.starts_with(prefix)) {
      children.insert(
          interface.substr(prefix.size(), interface.find('.', prefix.size()) - prefix.size()));
    }
  }
  for (const std::string& child : children) xml += "  <node name=\"" + child + "\"/>\n";
  xml = InterfaceXml::Document(xml);
  Reply reply = EmptyReply(call);
  Check(sd_bus_message_append_basic(reply.message.get(), 's', xml.c_str()));
  reply.size = xml.size();
  return reply;
}

ServedObjects::Reply ServedObjects::AnswerProperties(sd_bus_message* call,
                                                     const std::string& object,
                                                     const Credentials& caller) const {
  const ServedInterface* const described = FindDescription(object);
  const ServedInterface& served = described != nullptr ? *described : ServedInterface{object};
  try {
    if (!served.counters.empty()) {
      const std::string refusal = served.counter_refusal(caller);
      if (!refusal.empty()) return Refusal(call, SD_BUS_ERROR_ACCESS_DENIED, refusal);
    }
    return AnswerPropertiesOf(call, served);
  } catch (const std::exception& failure) {
    return Refusal(call, SD_BUS_ERROR_FAILED, failure.what());
  }
}

ServedObjects::Reply ServedObjects::AnswerPropertiesOf(sd_bus_message* call,
                                                       const ServedInterface& served) const {
  const std::string member = OrEmpty(sd_bus_message_get_member(call));
  const char* const types = TypesOfPropertyCall(member);
  if (types == nullptr) return NoSuchMethod(call, kProperties);
  if (!Has(call, types)) {
    return Refusal(call, SD_BUS_ERROR_INVALID_ARGS, TypesText(member, types, call));
  }
  const std::string interface = ReadText(call);
  const bool is_standard =
      interface == kIntrospectable || interface == kPeer || interface == kProperties;
  if (interface != served.name && !is_standard && !interface.empty()) {
    return Refusal(call, SD_BUS_ERROR_UNKNOWN_INTERFACE,
                   "the object has no interface \"" + interface + "\"");
  }
  const ServedInterface& asked = is_standard ? ServedInterface{interface} : served;
  return member == "GetAll" ? GetAll(call, asked) : GetOne(call, asked, ReadText(call));
}

ServedObjects::Reply ServedObjects::GetAll(sd_bus_message* call,
                                           const ServedInterface& served) const {
  Reply reply = EmptyReply(call);
  sd_bus_message* const wire = reply.message.get();
  Check(sd_bus_message_open_container(wire, 'a', "{sv}"));
  for (const ServedCounter& counter : served.counters) {
    Check(sd_bus_message_append(wire, "{sv}", counter.name.c_str(), "t", counter.read()));
  }
  Check(sd_bus_message_close_container(wire));
  return reply;
}

ServedObjects::Reply ServedObjects::GetOne(sd_bus_message* call, const ServedInterface& served,
                                           const std::string& name) const {
  for (const ServedCounter& counter : served.counters) {
    if (counter.name != name) continue;
    if (OrEmpty(sd_bus_message_get_member(call)) == "Set") {
      return Refusal(call, SD_BUS_ERROR_PROPERTY_READ_ONLY, name + " is read-only");
    }
    Reply reply = EmptyReply(call);
    Check(sd_bus_message_append(reply.message.get(), "v", "t", counter.read()));
    return reply;
  }
  return Refusal(call, SD_BUS_ERROR_UNKNOWN_PROPERTY, "there is no property \"" + name + "\"");
}

}  // namespace tevra::msgbus

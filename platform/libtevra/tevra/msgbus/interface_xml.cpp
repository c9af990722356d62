#include "tevra/msgbus/interface_xml.h"

#include <string_view>
#include <vector>

namespace tevra::msgbus {
namespace {

constexpr const char* kDocumentType =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";

std::string Attribute(const char* name, const std::string& value) {
  return std::string(" ") + name + "=\"" + value + "\"";
}

std::string Arguments(const std::vector<ServedValue>& values, const std::string& direction) {
  std::string xml;
  for (const ServedValue& value : values) {
    xml += "      <arg" + Attribute("name", value.name) +
           Attribute("type", DbusTypesOf(std::string_view(&value.type, 1))) + direction + "/>\n";
  }
  return xml;
}

// An element that is closed at once when there is nothing in it.
std::string Element(const char* tag, const std::string& name, const std::string& inner) {
  const std::string head = std::string("    <") + tag + Attribute("name", name);
  return inner.empty() ? head + "/>\n" : head + ">\n" + inner + "    </" + tag + ">\n";
}

std::string Property(const std::string& name) {
  return "    <property" + Attribute("name", name) +
         " type=\"t\" access=\"read\">\n"
         "      <annotation name=\"org.freedesktop.DBus.Property.EmitsChangedSignal\""
         " value=\"false\"/>\n"
         "    </property>\n";
}

}  // namespace

std::string InterfaceXml::Document(const std::string& elements) {
  return std::string(kDocumentType) + "<node>\n" + elements + "</node>\n";
}

std::string InterfaceXml::Of(const ServedInterface& served) {
  std::string xml = "  <interface" + Attribute("name", served.name) + ">\n";
  for (const ServedOperation& operation : served.operations) {
    xml += Element("method", operation.member,
                   Arguments(operation.arguments, Attribute("direction", "in")) +
                       Arguments(operation.results, Attribute("direction", "out")));
  }
  for (const ServedSignal& signal : served.signals) {
    xml += Element("signal", signal.name, Arguments(signal.values, ""));
  }
  for (const ServedCounter& counter : served.counters) xml += Property(counter.name);
  return xml + "  </interface>\n";
}

}  // namespace tevra::msgbus

#include "tevra/msgbus/interface_xml.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace tevra::msgbus {
namespace {

std::string TypesAndNames(const std::vector<ServedValue>& values) {
  std::string text;
  for (const ServedValue& value : values) text += value.type + value.name + " ";
  return text;
}

TEST(ServedOperationTest, ReadsNamesForArgumentsAndResults) {
  const auto operation = ServedOperation::Of("Ask", "either", "bsl", "iu", "a bc d -> e  f");
  EXPECT_EQ(operation.member, "Ask");
  EXPECT_EQ(operation.role, "either");
  EXPECT_EQ(TypesAndNames(operation.arguments), "ba sbc ld ");
  EXPECT_EQ(TypesAndNames(operation.results), "ie uf ");
}

TEST(ServedOperationTest, MayHaveNeitherArgumentsNorResults) {
  EXPECT_EQ(TypesAndNames(ServedOperation::Of("Ask", "admin", "", "i", "-> a").results), "ia ");
  const auto operation = ServedOperation::Of("Do", "admin", "i", "", "a");
  EXPECT_EQ(TypesAndNames(operation.arguments), "ia ");
  EXPECT_TRUE(operation.results.empty());
}

TEST(ServedOperationTest, RefusesANameWithoutAType) {
  EXPECT_THROW(ServedOperation::Of("Ask", "admin", "s", "", "a b"), std::out_of_range);
}

TEST(InterfaceXmlTest, SpellsTypesAsDbusDoes) {
  EXPECT_EQ(DbusTypesOf(""), "");
  EXPECT_EQ(DbusTypesOf("biusl"), "biuayaay");
}

TEST(InterfaceXmlTest, HoldsOperationsSignalsAndCounters) {
  ServedInterface served;
  served.name = "a.b";
  served.operations = {ServedOperation::Of("Ask", "either", "sl", "b", "a b -> c"),
                       ServedOperation::Of("Do", "either", "", "", "")};
  served.signals = {{"Changed", {{'u', "d"}}}};
  served.counters = {{"Calls", nullptr}};
  EXPECT_EQ(InterfaceXml::Of(served), R"(  <interface name="a.b">
    <method name="Ask">
      <arg name="a" type="ay" direction="in"/>
      <arg name="b" type="aay" direction="in"/>
      <arg name="c" type="b" direction="out"/>
    </method>
    <method name="Do"/>
    <signal name="Changed">
      <arg name="d" type="u"/>
    </signal>
    <property name="Calls" type="t" access="read">
      <annotation name="org.freedesktop.DBus.Property.EmitsChangedSignal" value="false"/>
    </property>
  </interface>
)");
}

}  // namespace
}  // namespace tevra::msgbus

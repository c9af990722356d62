// What a bus on a broker answers about itself, as a caller with any D-Bus library sees it.
#include "tevra/msgbus/broker/served_objects.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "support/private_dbus_daemon.h"
#include "tevra/msgbus/bus_error.h"
#include "transport_fixture.h"

namespace tevra::msgbus {
namespace {

constexpr const char* kPath = "/tevra/test/ITest";
constexpr const char* kIntrospectable = "org.freedesktop.DBus.Introspectable";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

class ServedObjectsTest : public TransportTest {
 protected:
  void SetUp() override {
    broker_ = support::PrivateDbusDaemon::Start();
    if (!broker_) GTEST_SKIP() << "dbus-daemon is not installed";
    platform_.Set("MsgBus", "transport", "broker");
    platform_.Set("MsgBus", "address", broker_->address());
    server_ = NewBus();
    server_->RegisterMessageHandler("Echo", kInterface, &echo_);
    server_->RegisterMessageHandler("Picky", kInterface, &picky_);
    server_->RegisterMessageHandler("Ask", "tevra.test.INotDescribed", &echo_);
    server_->RegisterMessageHandler("Note", IMsgBus::kLocalInterface, &echo_);
    server_->StartServer(kDestination);
    sd_bus* bus = nullptr;
    ASSERT_GE(sd_bus_new(&bus), 0);
    caller_.reset(bus);
    ASSERT_GE(sd_bus_set_address(bus, broker_->address().c_str()), 0);
    ASSERT_GE(sd_bus_set_bus_client(bus, 1), 0);
    ASSERT_GE(sd_bus_start(bus), 0);
  }

  ServedInterface Described() {
    ServedInterface served;
    served.name = kInterface;
    served.operations = {ServedOperation::Of("Echo", "either", "s", "s", "text -> text"),
                         ServedOperation::Of("Picky", "either", "sl", "", "text list")};
    served.counters = {{"Seven", [] { return uint64_t{7}; }},
                       {"Broken", []() -> uint64_t { throw std::runtime_error("no disk"); }}};
    served.counter_refusal = [this](const Credentials&) { return refusal_; };
    return served;
  }

  template <typename... Arguments>
  MessagePtr CallAt(const char* path, const char* interface, const char* member,
                    const char* types = "", Arguments... arguments) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    sd_bus_call_method(caller_.get(), kDestination, path, interface, member, &error, &reply, types,
                       arguments...);
    error_ = error.name == nullptr ? "" : std::string(error.name) + ": " + error.message;
    sd_bus_error_free(&error);
    return MessagePtr(reply);
  }
  std::string Introspect(const char* path) {
    const MessagePtr reply = CallAt(path, kIntrospectable, "Introspect");
    const char* xml = "";
    if (reply) sd_bus_message_read_basic(reply.get(), 's', &xml);
    return xml;
  }
  // What the call is answered with, and expects an error.
  template <typename... Arguments>
  std::string ErrorOf(Arguments... arguments) {
    CallAt(arguments...);
    return error_;
  }

  struct Close {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  };
  std::unique_ptr<support::PrivateDbusDaemon> broker_;
  support::FunctionHandler picky_{[](IMsgBus& bus, MsgBusMsg& message) {
    bus.SendReply(
        MsgBusMsg::ErrorTo(message, BusError::kInvalidArgs, "not (" + message.Signature() + ")"));
  }};
  std::string refusal_;
  std::string error_;
  std::unique_ptr<MsgBus> server_;
  std::unique_ptr<sd_bus, Close> caller_;
};

TEST_F(ServedObjectsTest, RefusesCallsOfWhatIsNotThere) {
  const std::string prefix = "org.freedesktop.DBus.Error.";
  EXPECT_EQ(ErrorOf("/nowhere", kInterface, "Echo"),
            prefix + "UnknownObject: there is no object /nowhere");
  EXPECT_EQ(ErrorOf("/tevra/test/ITes", kIntrospectable, "Introspect"),
            prefix + "UnknownObject: there is no object /tevra/test/ITes");
  EXPECT_EQ(ErrorOf("/tevra/test/ITest/below", kInterface, "Echo"),
            prefix + "UnknownObject: there is no object /tevra/test/ITest/below");
  EXPECT_EQ(ErrorOf("/tevra/msgbus/Local", IMsgBus::kLocalInterface, "Note"),
            prefix + "UnknownObject: there is no object /tevra/msgbus/Local");
  EXPECT_EQ(ErrorOf("/", kInterface, "Echo"),
            prefix + "UnknownInterface: the object / has no interface \"tevra.test.ITest\"");
  EXPECT_EQ(ErrorOf(kPath, "tevra.test.INotDescribed", "Ask"),
            prefix +
                "UnknownInterface: the object /tevra/test/ITest has no interface "
                "\"tevra.test.INotDescribed\"");
  EXPECT_EQ(ErrorOf(kPath, static_cast<const char*>(nullptr), "Echo"),
            prefix + "UnknownInterface: the object /tevra/test/ITest has no interface \"\"");
  EXPECT_EQ(ErrorOf("/tevra", kProperties, "GetAll", "s", ""),
            prefix +
                "UnknownInterface: the object /tevra has no interface "
                "\"org.freedesktop.DBus.Properties\"");
  for (const char* interface : {kInterface, kIntrospectable, kProperties}) {
    EXPECT_EQ(ErrorOf(kPath, interface, "Nothing"),
              prefix + "UnknownMethod: no such operation: " + interface + ".Nothing");
  }
}

TEST_F(ServedObjectsTest, RepeatsNoNameOfAnyLength) {
  const std::string path = "/" + std::string(1 << 15, 'x');
  const std::string prefix = "org.freedesktop.DBus.Error.";
  EXPECT_EQ(ErrorOf(path.c_str(), kInterface, "Echo"),
            prefix + "UnknownObject: there is no object /" + std::string(880, 'x'));
  const std::string name(1 << 20, 'y');
  EXPECT_EQ(ErrorOf(kPath, kProperties, "Get", "ss", kInterface, name.c_str()),
            prefix + "UnknownProperty: there is no property \"" + std::string(878, 'y'));
}

TEST_F(ServedObjectsTest, TellsTheWayToEveryInterface) {
  server_->Describe(Described());
  EXPECT_NE(Introspect("/").find("<node name=\"tevra\"/>"), std::string::npos);
  EXPECT_NE(Introspect("/tevra").find("<node name=\"test\"/>"), std::string::npos);
  const std::string folder = Introspect("/tevra/test");
  EXPECT_NE(folder.find("  <node name=\"INotDescribed\"/>\n  <node name=\"ITest\"/>\n</node>"),
            std::string::npos);
  EXPECT_EQ(folder.find("Properties"), std::string::npos);
  EXPECT_EQ(folder.find("msgbus"), std::string::npos);
  const std::string object = Introspect(kPath);
  EXPECT_NE(object.find("<method name=\"Echo\">\n"
                        "      <arg name=\"text\" type=\"ay\" direction=\"in\"/>"),
            std::string::npos);
  EXPECT_NE(object.find("<property name=\"Seven\" type=\"t\" access=\"read\">"), std::string::npos);
  for (const char* name : {kIntrospectable, kProperties, "org.freedesktop.DBus.Peer"}) {
    EXPECT_NE(object.find("<interface name=\"" + std::string(name) + "\">"), std::string::npos);
  }
  EXPECT_NE(Introspect("/tevra/test/INotDescribed").find("name=\"tevra.test.INotDescribed\">"),
            std::string::npos);
}

TEST_F(ServedObjectsTest, AnswersThePeerInterface) {
  EXPECT_NE(CallAt(kPath, "org.freedesktop.DBus.Peer", "Ping"), nullptr) << error_;
}

TEST_F(ServedObjectsTest, NamesTheTypesOfADescribedOperationAsDbusDoes) {
  const std::string wrong = "org.freedesktop.DBus.Error.InvalidArgs: ";
  EXPECT_EQ(ErrorOf(kPath, kInterface, "Picky", "ay", 0), wrong + "not (s)");
  EXPECT_EQ(ErrorOf(kPath, kInterface, "Echo", "a{sv}", 0), wrong + "malformed arguments");
  server_->Describe(Described());
  EXPECT_EQ(ErrorOf(kPath, kInterface, "Picky", "ay", 0), wrong + "Picky takes (ayaay), not (ay)");
  EXPECT_EQ(ErrorOf(kPath, kInterface, "Echo", "a{sv}", 0), wrong + "Echo takes (ay), not (a{sv})");
  // Types that are right are not what was wrong.
  EXPECT_EQ(ErrorOf(kPath, kInterface, "Picky", "ayaay", 0, 0), wrong + "not (sl)");
  EXPECT_EQ(ErrorOf(kPath, kIntrospectable, "Introspect", "s", "x"),
            wrong + "Introspect takes (), not (s)");
  EXPECT_EQ(ErrorOf(kPath, kProperties, "Get", "s", "x"), wrong + "Get takes (ss), not (s)");
}

TEST_F(ServedObjectsTest, ReadsCountersOneByOneAndNeverWritesThem) {
  server_->Describe(Described());
  const std::string prefix = "org.freedesktop.DBus.Error.";
  const MessagePtr reply = CallAt(kPath, kProperties, "Get", "ss", kInterface, "Seven");
  ASSERT_NE(reply, nullptr) << error_;
  uint64_t value = 0;
  EXPECT_GE(sd_bus_message_read(reply.get(), "v", "t", &value), 0);
  EXPECT_EQ(value, 7u);
  EXPECT_EQ(ErrorOf(kPath, kProperties, "Get", "ss", kInterface, "Broken"),
            prefix + "Failed: no disk");
  EXPECT_EQ(ErrorOf(kPath, kProperties, "GetAll", "s", kInterface), prefix + "Failed: no disk");
  EXPECT_EQ(ErrorOf(kPath, kProperties, "Get", "ss", kInterface, "Eight"),
            prefix + "UnknownProperty: there is no property \"Eight\"");
  EXPECT_EQ(ErrorOf(kPath, kProperties, "Get", "ss", "tevra.test.INotDescribed", "Seven"),
            prefix + "UnknownInterface: the object has no interface \"tevra.test.INotDescribed\"");
  EXPECT_EQ(ErrorOf(kPath, kProperties, "Set", "ssv", kInterface, "Seven", "t", uint64_t{8}),
            prefix + "PropertyReadOnly: Seven is read-only");
}

TEST_F(ServedObjectsTest, ReadsAllCountersAtOnce) {
  ServedInterface served = Described();
  served.counters.pop_back();
  server_->Describe(served);
  for (const char* interface : {kInterface, ""}) {
    const MessagePtr reply = CallAt(kPath, kProperties, "GetAll", "s", interface);
    ASSERT_NE(reply, nullptr) << error_;
    const char* name = nullptr;
    uint64_t value = 0;
    EXPECT_GT(sd_bus_message_read(reply.get(), "a{sv}", 1, &name, "t", &value), 0);
    EXPECT_STREQ(name, "Seven");
    EXPECT_EQ(value, 7u);
  }
  EXPECT_NE(CallAt(kPath, kProperties, "GetAll", "s", kIntrospectable), nullptr) << error_;
}

TEST_F(ServedObjectsTest, ReadsCountersForThoseWhomTheInterfaceAdmits) {
  server_->Describe(Described());
  refusal_ = "you may not";
  const std::string denied = "org.freedesktop.DBus.Error.AccessDenied: you may not";
  EXPECT_EQ(ErrorOf(kPath, kProperties, "Get", "ss", kInterface, "Seven"), denied);
  EXPECT_EQ(ErrorOf(kPath, kProperties, "GetAll", "s", kInterface), denied);
  EXPECT_EQ(ErrorOf(kPath, kProperties, "Set", "ssv", kInterface, "Seven", "t", uint64_t{8}),
            denied);
  EXPECT_NE(Introspect(kPath), "");
}

TEST_F(ServedObjectsTest, ReadsNoCounterOfWhichNoOneSaysWhoMayReadIt) {
  ServedInterface served = Described();
  served.counter_refusal = nullptr;
  server_->Describe(served);
  EXPECT_EQ(CallAt(kPath, kProperties, "Get", "ss", kInterface, "Seven"), nullptr);
}

TEST_F(ServedObjectsTest, ForgetsAWithdrawnDescription) {
  server_->Describe(Described());
  server_->Withdraw(kInterface);
  EXPECT_EQ(Introspect(kPath).find("Seven"), std::string::npos);
  EXPECT_EQ(ErrorOf(kPath, kProperties, "Get", "ss", kInterface, "Seven"),
            "org.freedesktop.DBus.Error.UnknownProperty: there is no property \"Seven\"");
}

}  // namespace
}  // namespace tevra::msgbus

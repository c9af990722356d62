#include "tevra/msgbus/wire/frame.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/wire/handshake.h"

namespace tevra::msgbus::wire {
namespace {

using Values = std::vector<MsgBusMsg::Value>;

std::string BodyOf(const Frame& frame, const Values& values = {}) {
  std::string bytes;
  AppendFrame(&bytes, frame, values);
  return bytes.substr(kLengthBytes);
}

Values ValuesIn(const std::string& bytes, bool* good) {
  MsgBusMsg message("a", "b", "");
  *good = ReadValues(bytes, &message);
  return message.Body();
}

TEST(Frame, LiesOnTheWireAsItIsDocumented) {
  std::string bytes;
  AppendFrame(&bytes, {Kind::kCall, kWantsNoReply, 0x01020304, "a.b", "C", {}},
              {true, int32_t{-2}, uint32_t{258}, std::string("x\0y", 3),
               std::vector<std::string>{"", "z"}});
  const std::string expected(
      "\x34\0\0\0"                // length of the rest
      "\x04\x01\x04\x03\x02\x01"  // kind, flags, serial
      "\x03\0\0\0a.b\x01\0\0\0C"
      "b\x01"
      "i\xfe\xff\xff\xff"
      "u\x02\x01\0\0"
      "s\x03\0\0\0x\0y"
      "l\x02\0\0\0\0\0\0\0\x01\0\0\0z",
      56);
  EXPECT_EQ(bytes, expected);
}

TEST(Frame, IsReadAsItWasWritten) {
  const Values values = {false,
                         true,
                         int32_t{-2147483647 - 1},
                         uint32_t{4294967295u},
                         std::string("\0\xff", 2),
                         std::vector<std::string>(),
                         std::vector<std::string>{"", std::string(1, '\0'), "x"}};
  const std::string body = BodyOf({Kind::kSignal, 0, 7, "i.f", "Member", {}}, values);
  const auto frame = ParseBody(body);
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->kind, Kind::kSignal);
  EXPECT_EQ(frame->serial, 7u);
  EXPECT_EQ(frame->interface, "i.f");
  EXPECT_EQ(frame->member, "Member");
  MsgBusMsg message("i.f", "Member", "");
  ASSERT_TRUE(ReadValues(frame->values, &message));
  EXPECT_EQ(message.Body(), values);
}

TEST(Frame, IsNoneWithAnyPartOfItsHeadMissing) {
  const std::string body = BodyOf({Kind::kCall, 0, 1, "i", "m", {}});
  ASSERT_TRUE(ParseBody(body));
  for (size_t length = 0; length < body.size(); ++length) {
    EXPECT_FALSE(ParseBody(body.substr(0, length))) << length;
  }
}

TEST(Frame, IsNoneOfAnUnknownKind) {
  for (const int kind : {0, 8, 255}) {
    EXPECT_FALSE(ParseBody(BodyOf({static_cast<Kind>(kind), 0, 1, "i", "m", {}}))) << kind;
  }
}

TEST(FrameValues, AreMalformedWhenAnythingIsMissing) {
  const std::string head = BodyOf({Kind::kCall, 0, 1, {}, {}, {}});
  for (const MsgBusMsg::Value& value : Values{true, int32_t{1}, uint32_t{1}, std::string("ab"),
                                              std::vector<std::string>{"ab", "c"}}) {
    const std::string bytes = BodyOf({Kind::kCall, 0, 1, {}, {}, {}}, {value}).substr(head.size());
    bool good = false;
    EXPECT_EQ(ValuesIn(bytes, &good), Values{value});
    EXPECT_TRUE(good);
    for (size_t length = 1; length < bytes.size(); ++length) {
      ValuesIn(bytes.substr(0, length), &good);
      EXPECT_FALSE(good) << length;
    }
  }
}

TEST(FrameValues, AreMalformedOfAnUnknownTypeOrAThirdTruthValue) {
  bool good = true;
  ValuesIn("d12345678", &good);
  EXPECT_FALSE(good);
  ValuesIn("b\x02", &good);
  EXPECT_FALSE(good);
}

TEST(FrameValues, WithACountThatLiesTakeNoMemory) {
  bool good = true;
  ValuesIn("l\xff\xff\xff\xff", &good);
  EXPECT_FALSE(good);
  ValuesIn("s\xff\xff\xff\xff", &good);
  EXPECT_FALSE(good);
}

TEST(FrameValues, AreMalformedWhenThereAreMoreThanAnyMessageHas) {
  for (const auto& [count, is_good] : {std::pair{64, true}, std::pair{65, false}}) {
    std::string values;
    for (int i = 0; i < count; ++i) values += std::string("b\1", 2);
    MsgBusMsg message("i", "m", "d");
    EXPECT_EQ(ReadValues(values, &message), is_good) << count;
  }
}

TEST(Handshake, TellsInstanceAndDescriptor) {
  std::string bytes;
  AppendWelcome(&bytes, kHasDescriptor, 0x0123456789abcdef, 3);
  const std::string body = bytes.substr(kLengthBytes);
  const Welcome welcome = ReadWelcome(*ParseBody(body));
  EXPECT_EQ(welcome.error_name, "");
  EXPECT_EQ(welcome.instance, 0x0123456789abcdefu);
  EXPECT_TRUE(welcome.has_descriptor);
}

TEST(Handshake, TellsWhyItWasRefused) {
  std::string bytes;
  AppendRefusal(&bytes, BusError::kAccessDenied, "not \xff you");
  const std::string body = bytes.substr(kLengthBytes);
  const Welcome welcome = ReadWelcome(*ParseBody(body));
  EXPECT_EQ(welcome.error_name, BusError::kAccessDenied);
  EXPECT_EQ(welcome.error_text, "not ? you");
}

TEST(Handshake, TakesNothingElseForAWelcome) {
  for (const std::string& body :
       {BodyOf({Kind::kReply, 0, kVersion, "tevra.msgbus", {}, {}}, {1u, 1u, 1u}),
        BodyOf({Kind::kWelcome, 0, kVersion, "tevra.msgbu", {}, {}}, {1u, 1u, 1u}),
        BodyOf({Kind::kWelcome, 0, kVersion, "tevra.msgbus", {}, {}}, {1u, 1u}),
        BodyOf({Kind::kWelcome, 0, kVersion, "tevra.msgbus", {}, {}}) + "u"}) {
    EXPECT_EQ(ReadWelcome(*ParseBody(body)).error_text, "that was no welcome");
  }
}

TEST(Handshake, KnowsAHelloByKindNameAndVersion) {
  const auto flaw = [](const Frame& frame) { return FlawOfHello(frame); };
  EXPECT_EQ(flaw(Hello(0)), "");
  EXPECT_EQ(flaw({Kind::kCall, 0, kVersion, "tevra.msgbus", {}, {}}), "that was no hello");
  EXPECT_EQ(flaw({Kind::kHello, 0, kVersion, "tevra", {}, {}}), "that was no hello");
  EXPECT_EQ(flaw({Kind::kHello, 0, 5, "tevra.msgbus", {}, {}}),
            "the client speaks version 5 of the bus, this side version 1");
}

}  // namespace
}  // namespace tevra::msgbus::wire

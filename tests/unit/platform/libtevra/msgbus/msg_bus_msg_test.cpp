#include "tevra/msgbus/msg_bus_msg.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "support/memory/freed_memory_watch.h"
#include "tevra/core/secret_text.h"

namespace tevra::msgbus {
namespace {

uint32_t BigEndian(const MsgBusMsg& message, size_t offset) {
  const uint8_t* bytes = message.GetDBusMessage()->header + offset;
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

TEST(MsgBusMsg, IsACallWhenItHasADestinationAndASignalOtherwise) {
  EXPECT_EQ(MsgBusMsg("a.b", "C", "d.e").GetType(), MsgBusMsg::Type::kCall);
  EXPECT_EQ(MsgBusMsg("a.b", "C", "").GetType(), MsgBusMsg::Type::kSignal);
}

TEST(MsgBusMsg, HasABigEndianHeader) {
  MsgBusMsg message("a.b", "C", "d.e");
  message.SetSerial(0x01020304);
  const uint8_t* header = message.GetDBusMessage()->header;
  EXPECT_EQ(header[0], 'B');
  EXPECT_EQ(header[1], 1);
  EXPECT_EQ(header[3], 1);
  EXPECT_EQ(header[8], 1);
  EXPECT_EQ(header[9], 2);
  EXPECT_EQ(header[10], 3);
  EXPECT_EQ(header[11], 4);
  EXPECT_EQ(message.Serial(), 0x01020304u);
}

TEST(MsgBusMsg, KeepsTheLargestSerial) {
  MsgBusMsg message("a.b", "C", "d.e");
  message.SetSerial(0xffffffffu);
  EXPECT_EQ(message.Serial(), 0xffffffffu);
}

TEST(MsgBusMsg, KnowsTheLengthOfItsBody) {
  MsgBusMsg message("a.b", "C", "d.e");
  EXPECT_EQ(BigEndian(message, 4), 0u);
  message.Append(true);
  EXPECT_EQ(BigEndian(message, 4), 4u);
  message.Append(std::string("abc"));
  EXPECT_EQ(BigEndian(message, 4), 11u);
  message.Append(std::vector<std::string>{"x", "", "yz"});
  EXPECT_EQ(BigEndian(message, 4), 12u + 4 + 8 + 4 + 6);
}

TEST(MsgBusMsg, RepliesWithTheRequestsSerialNamesAndRoute) {
  MsgBusMsg request("a.b", "C", "d.e");
  request.SetSerial(7);
  request.SetRouteTag(99);
  request.Append(true);
  const MsgBusMsg reply = MsgBusMsg::ReplyTo(request);
  EXPECT_EQ(reply.GetType(), MsgBusMsg::Type::kReply);
  EXPECT_FALSE(reply.IsError());
  EXPECT_EQ(reply.ReplySerial(), 7u);
  EXPECT_EQ(reply.RouteTag(), 99u);
  EXPECT_EQ(reply.GetInterface(), "a.b");
  EXPECT_EQ(reply.GetName(), "C");
  EXPECT_EQ(reply.GetDestination(), "d.e");
  EXPECT_TRUE(reply.Body().empty());
}

TEST(MsgBusMsg, CarriesAnErrorsNameAndText) {
  const MsgBusMsg error = MsgBusMsg::ErrorTo(MsgBusMsg("a.b", "C", "d.e"), "x.Y", "why");
  EXPECT_TRUE(error.IsError());
  EXPECT_EQ(error.ErrorName(), "x.Y");
  EXPECT_EQ(error.ErrorText(), "why");
}

TEST(MsgBusMsg, SpellsItsSignatureInLettersOfItsOwn) {
  MsgBusMsg message("a.b", "C", "d.e");
  EXPECT_EQ(message.Signature(), "");
  message.Append(true).Append(int32_t{1}).Append(uint32_t{1});
  message.Append(std::string()).Append(std::vector<std::string>());
  EXPECT_EQ(message.Signature(), "biusl");
}

TEST(MsgBusMsg, CarriesThisProcessUnlessTheTransportKnowsBetter) {
  MsgBusMsg message("a.b", "C", "d.e");
  EXPECT_EQ(message.Sender().uid, geteuid());
  EXPECT_EQ(message.Sender().groups.at(0), getegid());
  message.SetSender({1234, {5, 6}});
  EXPECT_EQ(message.Sender().uid, 1234u);
  EXPECT_EQ(message.Sender().groups, (std::vector<gid_t>{5, 6}));
}

TEST(MsgBusMsg, CopiesAreIndependent) {
  MsgBusMsg message("a.b", "C", "d.e");
  MsgBusMsg copy = message;
  copy.Append(std::string("more")).SetSerial(5);
  EXPECT_TRUE(message.Body().empty());
  EXPECT_EQ(message.Serial(), 0u);
}

TEST(MsgBusMsg, CountsItsBytes) {
  MsgBusMsg small("a.b", "C", "d.e");
  MsgBusMsg large("a.b", "C", "d.e");
  large.Append(std::string(1000, 'x'));
  EXPECT_GE(small.Size(), 16u + 4 * 8);
  EXPECT_GE(large.Size(), small.Size() + 1004);
}

TEST(MsgBusMsg, LeavesNothingOfItsBodyInMemoryThatItGivesBack) {
  const std::string secret = "correct horse battery staple";
  const std::string short_secret = "sesame, open";
  for (const std::string& text : {secret, short_secret}) {
    const support::FreedMemoryWatch watch(text);
    std::string given = text;
    const core::ScopedWipe wipe(given);
    {
      MsgBusMsg message("a.b", "C", "d.e");
      for (int i = 0; i < 9; ++i) message.Append(given);
      message.Append(std::vector<std::string>(1, given));
      MsgBusMsg copy = message;
      MsgBusMsg moved = std::move(message);
      MsgBusMsg assigned("a.b", "C", "d.e");
      for (int i = 0; i < 20; ++i) assigned.Append(given);
      assigned = copy;
      copy = std::move(moved);
      EXPECT_EQ(std::get<std::string>(assigned.Body()[8]), text);
      EXPECT_EQ(copy.Signature(), "sssssssssl");
    }
    EXPECT_EQ(watch.Found(), 0) << text;
  }
}

}  // namespace
}  // namespace tevra::msgbus

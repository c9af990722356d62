#include "tevra/msgbus/broker/message_codec.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <limits>

#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

// A bus object to make messages for; nothing is ever sent over it.
class MessageCodecTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sockets_), 0);
    ASSERT_GE(sd_bus_new(&bus_), 0);
    ASSERT_GE(sd_bus_set_fd(bus_, sockets_[0], sockets_[0]), 0);
    ASSERT_GE(sd_bus_start(bus_), 0);
  }
  void TearDown() override {
    sd_bus_close_unref(bus_);
    close(sockets_[1]);
  }

  // The message as its receiver sees it.
  static void Seal(const MessagePtr& wire) {
    ASSERT_GE(sd_bus_message_seal(wire.get(), 1, 0), 0);
    ASSERT_GE(sd_bus_message_rewind(wire.get(), 1), 0);
  }
  MessagePtr RawCall(const char* signature, auto... values) {
    sd_bus_message* wire = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(bus_, &wire, "d.e", "/a/b", "a.b", "C"), 0);
    EXPECT_GE(sd_bus_message_append(wire, signature, values...), 0);
    MessagePtr owned(wire);
    Seal(owned);
    return owned;
  }

  MsgBusMsg message_{"a.b", "C", "d.e"};
  int sockets_[2] = {-1, -1};
  sd_bus* bus_ = nullptr;
};

TEST_F(MessageCodecTest, GivesEveryTypeBack) {
  message_.Append(true).Append(false);
  message_.Append(std::numeric_limits<int32_t>::min()).Append(std::numeric_limits<uint32_t>::max());
  message_.Append(std::string()).Append(std::string("\0\xff\n", 3));
  message_.Append(std::vector<std::string>()).Append(std::vector<std::string>{"", "a", ""});
  const MessagePtr wire = MessageCodec::EncodeCall(bus_, message_, "d.e", true);
  EXPECT_STREQ(sd_bus_message_get_signature(wire.get(), 1), "bbiuayayaayaay");
  Seal(wire);
  MsgBusMsg decoded("a.b", "C", "d.e");
  ASSERT_TRUE(MessageCodec::DecodeBody(wire.get(), 1 << 20, &decoded));
  EXPECT_EQ(decoded.Body(), message_.Body());
}

TEST_F(MessageCodecTest, NamesTheCallAsTheMessageDoes) {
  const MessagePtr wire = MessageCodec::EncodeCall(bus_, message_, "x.y", false);
  EXPECT_STREQ(sd_bus_message_get_interface(wire.get()), "a.b");
  EXPECT_STREQ(sd_bus_message_get_member(wire.get()), "C");
  EXPECT_STREQ(sd_bus_message_get_destination(wire.get()), "x.y");
  const MessagePtr to_the_peer = MessageCodec::EncodeCall(bus_, message_, "", false);
  EXPECT_EQ(sd_bus_message_get_destination(to_the_peer.get()), nullptr);
  EXPECT_STREQ(sd_bus_message_get_path(wire.get()), "/a/b");
  EXPECT_EQ(sd_bus_message_get_expect_reply(wire.get()), 0);
  EXPECT_EQ(sd_bus_message_get_auto_start(wire.get()), 0);
}

TEST_F(MessageCodecTest, ThrowsForNamesThatDbusDoesNotAllow) {
  for (const char* name : {"", "a b", "x-y", "x.y", "\xff"}) {
    EXPECT_THROW(MessageCodec::EncodeCall(bus_, MsgBusMsg("a.b", name, "d.e"), "d.e", true),
                 osa::Exception)
        << name;
  }
  EXPECT_THROW(MessageCodec::EncodeCall(bus_, MsgBusMsg("ab", "C", "d.e"), "d.e", true),
               osa::Exception);
}

TEST_F(MessageCodecTest, RefusesTypesThatAMessageHasNot) {
  EXPECT_FALSE(MessageCodec::DecodeBody(RawCall("s", "text").get(), 1 << 20, &message_));
  EXPECT_FALSE(MessageCodec::DecodeBody(RawCall("x", int64_t{1}).get(), 1 << 20, &message_));
  EXPECT_FALSE(MessageCodec::DecodeBody(RawCall("ai", 1, 2).get(), 1 << 20, &message_));
  EXPECT_FALSE(MessageCodec::DecodeBody(RawCall("v", "i", 2).get(), 1 << 20, &message_));
  EXPECT_FALSE(MessageCodec::DecodeBody(RawCall("(i)", 2).get(), 1 << 20, &message_));
  EXPECT_FALSE(MessageCodec::DecodeBody(RawCall("is", 2, "x").get(), 1 << 20, &message_));
}

TEST_F(MessageCodecTest, DecodesABodyOfExactlyTheLimitAndNoByteMore) {
  message_.Append(std::string(96, 'x'));
  const MessagePtr wire = MessageCodec::EncodeCall(bus_, message_, "d.e", true);
  Seal(wire);
  MsgBusMsg decoded("a.b", "C", "d.e");
  EXPECT_TRUE(MessageCodec::DecodeBody(wire.get(), 100, &decoded));
  ASSERT_GE(sd_bus_message_rewind(wire.get(), 1), 0);
  EXPECT_FALSE(MessageCodec::DecodeBody(wire.get(), 99, &decoded));
}

}  // namespace
}  // namespace tevra::msgbus

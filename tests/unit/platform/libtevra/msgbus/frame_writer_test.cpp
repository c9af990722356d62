#include "tevra/msgbus/wire/frame_writer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "support/memory/freed_memory_watch.h"
#include "tevra/osa/descriptor.h"

namespace tevra::msgbus::wire {
namespace {

class FrameWriterTest : public testing::Test {
 protected:
  FrameWriterTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    near_.Reset(ends[0]);
    far_.Reset(ends[1]);
  }
  std::string ReadSome() {
    std::string bytes(1 << 16, '\0');
    const ssize_t count = recv(far_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
  }
  osa::Descriptor near_;
  osa::Descriptor far_;
  FrameWriter writer_;
};

TEST_F(FrameWriterTest, SendsAtOnceWhatThePeerTakes) {
  EXPECT_TRUE(writer_.Send(near_.get(), "one"));
  EXPECT_EQ(writer_.PendingBytes(), 0u);
  EXPECT_EQ(ReadSome(), "one");
}

TEST_F(FrameWriterTest, KeepsWhatThePeerDoesNotTakeAndTheOrder) {
  std::string expected;
  for (char c = 'a'; c <= 'j'; ++c) {
    expected += std::string(100000, c);
    ASSERT_TRUE(writer_.Send(near_.get(), std::string(100000, c)));
  }
  EXPECT_GT(writer_.PendingBytes(), 0u);
  std::string got;
  for (std::string some = ReadSome(); !some.empty(); some = ReadSome()) {
    got += some;
    ASSERT_TRUE(writer_.Flush(near_.get()));
  }
  EXPECT_EQ(writer_.PendingBytes(), 0u);
  EXPECT_TRUE(got == expected);
}

TEST_F(FrameWriterTest, LeavesNothingInTheMemoryThatItOutgrows) {
  if (!support::FreedMemoryWatch::kWorks) GTEST_SKIP() << "no freed memory is seen here";
  const std::string secret = "the password of a caller who waits";
  const std::string filling(1 << 20, 'x');  // more than the socket takes
  ASSERT_TRUE(writer_.Send(near_.get(), filling));
  const support::FreedMemoryWatch watch(secret);
  ASSERT_TRUE(writer_.Send(near_.get(), secret));
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(writer_.Send(near_.get(), filling));
  EXPECT_EQ(watch.Found(), 0);
}

TEST_F(FrameWriterTest, TellsThatThePeerHasGone) {
  EXPECT_TRUE(writer_.Send(near_.get(), std::string(1000000, 'x')));
  far_.Reset();
  EXPECT_FALSE(writer_.Flush(near_.get()));
  EXPECT_FALSE(FrameWriter().Send(near_.get(), "x"));
}

TEST(ScopedFrameWipe, OverwritesWhatWasSentAndGivesTheMemoryOfALargeMessageBack) {
  std::string frames(100, 'x');
  const char* const data = frames.data();
  { const ScopedFrameWipe wipe(&frames); }
  EXPECT_TRUE(frames.empty());
  ASSERT_EQ(frames.data(), data) << "kept for the next message";
  EXPECT_EQ(std::string(data, 100), std::string(100, '\0'));
  frames.assign(100000, 'x');
  { const ScopedFrameWipe wipe(&frames); }
  EXPECT_LT(frames.capacity(), 100u);
}

}  // namespace
}  // namespace tevra::msgbus::wire

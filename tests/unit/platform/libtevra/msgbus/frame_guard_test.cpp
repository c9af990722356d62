#include "tevra/msgbus/frame_guard.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace tevra::msgbus {
namespace {

using Verdict = FrameGuard::Verdict;

constexpr size_t kLimit = 1024;

// The fixed header of a message with a body of `body` bytes and header fields of `fields` bytes.
std::string Header(uint32_t body, uint32_t fields, char byte_order = 'l') {
  std::string header = {byte_order, 1, 0, 1};
  for (uint32_t value : {body, 1u, fields}) {
    for (int i = 0; i < 4; ++i) {
      const int shift = byte_order == 'l' ? 8 * i : 24 - 8 * i;
      header += static_cast<char>(value >> shift);
    }
  }
  return header;
}

class FrameGuardTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets_), 0);
  }
  void TearDown() override {
    close(sockets_[0]);
    if (sockets_[1] >= 0) close(sockets_[1]);
  }

  void Write(const std::string& bytes) {
    ASSERT_EQ(write(sockets_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void CloseOtherEnd() {
    close(sockets_[1]);
    sockets_[1] = -1;
  }
  int fd() const { return sockets_[0]; }

  FrameGuard guard_{kLimit};
  int sockets_[2] = {-1, -1};
};

TEST_F(FrameGuardTest, SeesNothingInAnEmptySocket) {
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kNothing);
  EXPECT_EQ(guard_.LookAtHandshake(fd()), Verdict::kNothing);
}

TEST_F(FrameGuardTest, RefusesTheEndOfTheStream) {
  CloseOtherEnd();
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kRefuse);
  EXPECT_EQ(guard_.LookAtHandshake(fd()), Verdict::kRefuse);
}

TEST_F(FrameGuardTest, WaitsForAWholeHeader) {
  const std::string header = Header(10, 10);
  Write(header.substr(0, 15));
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kPartial);
  Write(header.substr(15));
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kRead);
}

TEST_F(FrameGuardTest, LetsAMessageOfExactlyTheLimitPass) {
  Write(Header(kLimit - 16 - 100, 100));
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kRead);
}

TEST_F(FrameGuardTest, RefusesAMessageOfOneByteMore) {
  Write(Header(kLimit - 16 - 100 + 1, 100));
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kRefuse);
}

TEST_F(FrameGuardTest, ReadsBigEndianLengthsToo) {
  Write(Header(kLimit - 16, 0, 'B'));
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kRead);
}

TEST_F(FrameGuardTest, RefusesLengthsWhoseSumWouldOverflow) {
  Write(Header(0xffffffffu, 0xffffffffu));
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kRefuse);
}

TEST_F(FrameGuardTest, RefusesWhatIsNoHeader) {
  Write("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kRefuse);
}

TEST_F(FrameGuardTest, DoesNotJudgeTheInsideOfAMessage) {
  Write(Header(100, 0));
  ASSERT_EQ(guard_.Look(fd(), true), Verdict::kRead);
  std::string header(16, ' ');
  ASSERT_EQ(read(fd(), header.data(), 16), 16);
  Write("not a header at all, but a body");
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kRead);
  guard_.MessageEnded(fd());
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kRefuse);
}

// What sd-bus does with a message: reads it, whole or in parts.
void Consume(int fd, size_t count) {
  std::string bytes(count, ' ');
  ASSERT_EQ(read(fd, bytes.data(), count), static_cast<ssize_t>(count));
}

TEST_F(FrameGuardTest, NoticesASkippedMessageThatWasThereWhole) {
  Write(Header(4, 0) + "body");
  ASSERT_EQ(guard_.Look(fd(), true), Verdict::kRead);
  Consume(fd(), 20);
  EXPECT_TRUE(guard_.MessageWasSkipped(fd()));
  guard_.MessageEnded(fd());
  EXPECT_FALSE(guard_.MessageWasSkipped(fd()));
}

TEST_F(FrameGuardTest, NoticesASkippedMessageThatCameInParts) {
  Write(Header(4, 0));
  ASSERT_EQ(guard_.Look(fd(), true), Verdict::kRead);
  Consume(fd(), 16);
  EXPECT_FALSE(guard_.MessageWasSkipped(fd()));
  Write("body");
  ASSERT_EQ(guard_.Look(fd(), true), Verdict::kRead);
  Consume(fd(), 3);
  EXPECT_FALSE(guard_.MessageWasSkipped(fd()));
  Consume(fd(), 1);
  EXPECT_TRUE(guard_.MessageWasSkipped(fd()));
}

TEST_F(FrameGuardTest, DoesNotTakeAnUnreadMessageForASkippedOne) {
  Write(Header(4, 0) + "body");
  ASSERT_EQ(guard_.Look(fd(), false), Verdict::kRead);
  EXPECT_FALSE(guard_.MessageWasSkipped(fd()));
}

TEST_F(FrameGuardTest, NoticesASkippedMessageBehindTheHandshake) {
  Write("BEGIN\r\n" + Header(4, 0) + "body");
  ASSERT_EQ(guard_.LookAtHandshake(fd()), Verdict::kRead);
  Consume(fd(), 7 + 16);
  EXPECT_FALSE(guard_.MessageWasSkipped(fd()));
  Consume(fd(), 4);
  EXPECT_TRUE(guard_.MessageWasSkipped(fd()));
}

TEST_F(FrameGuardTest, LooksAtTheNextMessageFromItsBeginning) {
  Write(Header(4, 0));
  ASSERT_EQ(guard_.Look(fd(), true), Verdict::kRead);
  Write("body" + Header(kLimit, 0));
  Consume(fd(), 20);
  guard_.MessageEnded(fd());
  EXPECT_EQ(guard_.Look(fd(), true), Verdict::kRefuse);
}

TEST_F(FrameGuardTest, AwaitsTheNextMessage) {
  std::thread writer([this] { Write(Header(10, 10)); });
  EXPECT_EQ(guard_.Await(fd()), Verdict::kRead);
  EXPECT_TRUE(guard_.IsInsideMessage());
  writer.join();
}

TEST_F(FrameGuardTest, AwaitsAMessageNoLongerThanTheSocketsTimeout) {
  const timeval timeout{0, 1000};
  ASSERT_EQ(setsockopt(fd(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout), 0);
  EXPECT_EQ(guard_.Await(fd()), Verdict::kNothing);
  EXPECT_FALSE(guard_.IsInsideMessage());
}

TEST_F(FrameGuardTest, JudgesAnAwaitedMessageLikeAnyOther) {
  Write("l");
  EXPECT_EQ(guard_.Await(fd()), Verdict::kPartial);
  Consume(fd(), 1);
  Write(Header(kLimit, 0));
  EXPECT_EQ(guard_.Await(fd()), Verdict::kRefuse);
}

TEST_F(FrameGuardTest, AwaitsNothingOfAPeerThatIsGone) {
  std::thread peer([this] { CloseOtherEnd(); });
  EXPECT_EQ(guard_.Await(fd()), Verdict::kRefuse);
  peer.join();
}

TEST_F(FrameGuardTest, LetsAHandshakePassAndNotesItsEnd) {
  Write(std::string("\0AUTH EXTERNAL\r\n", 16));
  EXPECT_EQ(guard_.LookAtHandshake(fd()), Verdict::kRead);
  EXPECT_FALSE(guard_.HandshakeWasSeen());
  Write("DATA\r\nBEGIN\r\n");
  EXPECT_EQ(guard_.LookAtHandshake(fd()), Verdict::kRead);
  EXPECT_TRUE(guard_.HandshakeWasSeen());
}

TEST_F(FrameGuardTest, JudgesAMessageRightBehindTheHandshake) {
  Write("BEGIN\r\n" + Header(10, 10));
  EXPECT_EQ(guard_.LookAtHandshake(fd()), Verdict::kRead);
}

TEST_F(FrameGuardTest, RefusesATooLongMessageRightBehindTheHandshake) {
  Write("BEGIN\r\n" + Header(kLimit, 10));
  EXPECT_EQ(guard_.LookAtHandshake(fd()), Verdict::kRefuse);
}

TEST_F(FrameGuardTest, RefusesAPieceOfAHeaderRightBehindTheHandshake) {
  Write("BEGIN\r\n" + Header(10, 10).substr(0, 15));
  EXPECT_EQ(guard_.LookAtHandshake(fd()), Verdict::kRefuse);
}

}  // namespace
}  // namespace tevra::msgbus

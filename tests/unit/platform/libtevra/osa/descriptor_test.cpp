#include "tevra/osa/descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

using tevra::osa::Descriptor;

bool IsOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

int Open() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST(Descriptor, ClosesWhatItHoldsAtTheEndOfItsLife) {
  const int fd = Open();
  { const Descriptor held(fd); }
  EXPECT_FALSE(IsOpen(fd));
}

TEST(Descriptor, HoldsNothingUnlessToldOtherwise) {
  const Descriptor empty;
  EXPECT_FALSE(empty);
  EXPECT_EQ(empty.get(), -1);
}

TEST(Descriptor, ZeroIsADescriptorToo) {
  Descriptor input(0);
  EXPECT_TRUE(input);
  EXPECT_EQ(input.Release(), 0);
}

TEST(Descriptor, MovingLeavesTheSourceEmptyAndClosesWhatTheTargetHeld) {
  const int kept = Open();
  const int replaced = Open();
  Descriptor source(kept);
  Descriptor target(replaced);
  target = std::move(source);
  EXPECT_EQ(target.get(), kept);
  EXPECT_FALSE(IsOpen(replaced));
  EXPECT_TRUE(IsOpen(kept));
  const Descriptor last(std::move(target));
  EXPECT_EQ(last.get(), kept);
  EXPECT_FALSE(target);
}

TEST(Descriptor, ReleasedIsTheCallersToClose) {
  int fd = -1;
  {
    Descriptor held(Open());
    fd = held.Release();
  }
  ASSERT_TRUE(IsOpen(fd));
  close(fd);
}

TEST(Descriptor, ResettingToItsOwnNumberKeepsItOpen) {
  Descriptor held(Open());
  held.Reset(held.get());
  EXPECT_TRUE(IsOpen(held.get()));
}

TEST(Descriptor, ClosingKeepsErrno) {
  Descriptor held(Open());
  close(held.get());  // the second close fails with EBADF
  errno = ENOENT;
  held.Reset();
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace

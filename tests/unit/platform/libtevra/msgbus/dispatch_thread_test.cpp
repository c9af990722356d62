#include "tevra/msgbus/dispatch_thread.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>

#include "comes.h"
#include "support/event_log.h"
#include "tevra/osa/descriptor.h"

namespace tevra::msgbus {
namespace {

using support::EventLog;

// A descriptor that is watched, closed by someone else, and whose number is then another file's,
// which is watched as well.
class NumberOfTwoWatches : public testing::Test {
 protected:
  NumberOfTwoWatches() {
    dispatch_.Invoke([this] {
      std::array<int, 2> gone{-1, -1};
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, gone.data()), 0);
      const osa::Descriptor gone_peer(gone[1]);
      number_.Reset(gone[0]);
      old_ = Watch("old");
      std::array<int, 2> fresh{-1, -1};
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fresh.data()), 0);
      peer_.Reset(fresh[1]);
      EXPECT_EQ(dup3(fresh[0], number_.get(), O_CLOEXEC), number_.get());
      close(fresh[0]);
      Watch("new");
    });
  }
  ~NumberOfTwoWatches() override { dispatch_.Stop(); }

  bool Happens(const std::string& event) const {
    return Comes([&] {
      const auto events = log_.Events();
      return std::find(events.begin(), events.end(), event) != events.end();
    });
  }
  void WriteToIt() const { EXPECT_EQ(write(peer_.get(), "", 1), 1); }

  EventLog log_;
  osa::Descriptor number_;
  osa::Descriptor peer_;
  DispatchThread dispatch_;
  DispatchThread::Id old_ = 0;

 private:
  DispatchThread::Id Watch(const std::string& name) {
    return dispatch_.Watch(number_.get(), EPOLLIN, [this, name](uint32_t events) {
      const bool is_lost = (events & DispatchThread::kLost) != 0;
      char byte = 0;
      EXPECT_TRUE(is_lost || read(number_.get(), &byte, 1) == 1);
      log_.Add(name + (is_lost ? " lost" : " readable"));
    });
  }
};

TEST_F(NumberOfTwoWatches, IsTheNewOnesWhenTheOldOneIsRemoved) {
  dispatch_.Invoke([this] { dispatch_.Remove(old_); });
  WriteToIt();
  EXPECT_TRUE(Happens("new readable"));
}

TEST_F(NumberOfTwoWatches, IsTheNewOnesWhenTheOldOneIsModified) {
  dispatch_.Invoke([this] { dispatch_.Modify(old_, 0); });
  WriteToIt();
  EXPECT_TRUE(Happens("new readable"));
}

TEST_F(NumberOfTwoWatches, IsSaidToBeLostToTheOldOneAlone) {
  EXPECT_TRUE(Happens("old lost"));
  WriteToIt();
  EXPECT_TRUE(Happens("new readable"));
  for (const std::string& event : log_.Events()) EXPECT_NE(event, "new lost");
}

}  // namespace
}  // namespace tevra::msgbus

#include "vigila-gateway/http/request_deadlines.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>

#include "support/program.h"

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using support::Fd;
using vigila::gateway::RequestDeadlines;

// Two ends of one connection.
class Pair {
 public:
  Pair() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
    served_ = Fd(fds[0]);
    client_ = Fd(fds[1]);
  }
  int Served() const { return served_.Get(); }
  // Does the client's end see the stream end, within the time?
  bool Ends(milliseconds within) const {
    pollfd wait = {client_.Get(), POLLRDHUP, 0};
    return poll(&wait, 1, static_cast<int>(within.count())) == 1;
  }

 private:
  Fd served_, client_;
};

constexpr milliseconds kLong{20000};
constexpr milliseconds kNow{0};

TEST(RequestDeadlines, ShutsDownWhatIsLateAndNothingElse) {
  const Pair late, early, forgotten, renewed;
  RequestDeadlines deadlines;
  deadlines.Await(early.Served(), hours(1));
  deadlines.Await(forgotten.Served(), milliseconds(20));
  deadlines.Await(renewed.Served(), milliseconds(20));
  deadlines.Forget(forgotten.Served());
  deadlines.Await(renewed.Served(), hours(1));
  deadlines.Await(late.Served(), milliseconds(20));
  EXPECT_TRUE(late.Ends(kLong));
  EXPECT_FALSE(early.Ends(kNow));
  EXPECT_FALSE(forgotten.Ends(kNow));
  EXPECT_FALSE(renewed.Ends(kNow));
}

TEST(RequestDeadlines, KeepsAnEarlierOneThatCameLater) {
  const Pair first, second, third;
  RequestDeadlines deadlines;
  deadlines.Await(first.Served(), hours(1));
  deadlines.Await(second.Served(), milliseconds(1));
  EXPECT_TRUE(second.Ends(kLong));
  deadlines.Await(third.Served(), milliseconds(1));
  EXPECT_TRUE(third.Ends(kLong));
  EXPECT_FALSE(first.Ends(kNow));
}

TEST(RequestDeadlines, TakesWhatItNeverHeardOf) {
  RequestDeadlines deadlines;
  deadlines.Forget(-1);
  deadlines.Await(-1, milliseconds(0));
  const Pair pair;
  deadlines.Await(pair.Served(), milliseconds(1));
  EXPECT_TRUE(pair.Ends(kLong));
}

}  // namespace

#include "tevra/msgbus/request_scheduler.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace tevra::msgbus {
namespace {

class Noted final : public RequestScheduler::Request {
 public:
  Noted(std::string& log, char name, std::function<void()> then)
      : log_(log), name_(name), then_(std::move(then)) {}
  void Run() override {
    log_ += name_;
    if (then_) then_();
  }

 private:
  std::string& log_;
  const char name_;
  const std::function<void()> then_;
};

class RequestSchedulerTest : public testing::Test {
 protected:
  using Caller = std::shared_ptr<RequestScheduler::Caller>;

  void Cheap(const Caller& caller, char name, std::function<void()> then = nullptr) {
    scheduler_.Add(caller, RequestScheduler::kCheap,
                   std::make_shared<Noted>(log_, name, std::move(then)));
  }
  void Dear(const Caller& caller, char name, std::function<void()> then = nullptr) {
    scheduler_.Add(caller, RequestScheduler::kDear,
                   std::make_shared<Noted>(log_, name, std::move(then)));
  }
  void RunAll() {
    while (scheduler_.RunSome()) log_ += '.';
  }
  Caller Process(pid_t pid) { return scheduler_.CallerOf({1000, {}, pid}); }

  std::string log_;
  RequestScheduler scheduler_;
};

TEST_F(RequestSchedulerTest, RunsNothingWhenNothingWaits) {
  EXPECT_FALSE(scheduler_.RunSome());
}

TEST_F(RequestSchedulerTest, RunsWaitingCheapOnesBeforeDearOnesWhichRunOneAtATime) {
  Dear(Process(1), 'X');
  Dear(Process(1), 'Y');
  Cheap(Process(2), 'a');
  Cheap(Process(1), 'b');
  RunAll();
  EXPECT_EQ(log_, "ab.X.Y");
}

TEST_F(RequestSchedulerTest, RunsACheapOneThatComesBetweenTwoDearOnes) {
  Dear(Process(1), 'X', [this] { Cheap(Process(2), 'a'); });
  Dear(Process(1), 'Y');
  RunAll();
  EXPECT_EQ(log_, "X.a.Y");
}

TEST_F(RequestSchedulerTest, TakesTurnsBetweenCallersOfAClass) {
  for (const char name : {'a', 'b', 'c'}) Cheap(Process(1), name);
  Cheap(Process(2), 'k');
  for (const char name : {'x', 'y'}) Cheap(Process(3), name);
  RunAll();
  EXPECT_EQ(log_, "akxbyc");
  log_.clear();
  for (const char name : {'A', 'B', 'C'}) Dear(Process(1), name);
  Dear(Process(2), 'K');
  RunAll();
  EXPECT_EQ(log_, "A.K.B.C");
}

TEST_F(RequestSchedulerTest, AnsweringTheNextOneOfACallerDoesNotKeepTheOthersWaiting) {
  int left = 3;
  std::function<void()> again = [&] {
    if (--left > 0) Cheap(Process(1), 'a', again);
  };
  Cheap(Process(1), 'a', again);
  Cheap(Process(2), 'b');
  RunAll();
  EXPECT_EQ(log_, "ab.a.a");
}

TEST_F(RequestSchedulerTest, RunsADearOneAlthoughCheapOnesComeWithoutEnd) {
  bool has_run = false;
  size_t before = 0;
  std::function<void()> again = [&] {
    if (!has_run) ++before;
    if (before < 10 * RequestScheduler::kPatience) Cheap(Process(1), 'a', again);
  };
  for (int i = 0; i < 10; ++i) Cheap(Process(1), 'a', again);
  Dear(Process(2), 'X', [&] { has_run = true; });
  for (size_t i = 0; i < 10 * RequestScheduler::kPatience && !has_run; ++i) scheduler_.RunSome();
  EXPECT_TRUE(has_run);
  EXPECT_GE(before, RequestScheduler::kPatience) << "cheap ones still go first";
  EXPECT_LT(before, RequestScheduler::kPatience + 10);
}

TEST_F(RequestSchedulerTest, ForgetsARequestWhoseMakerHasGone) {
  const Caller caller = Process(1);
  const auto gone = std::make_shared<Noted>(log_, 'X', nullptr);
  const auto stays = std::make_shared<Noted>(log_, 'Y', nullptr);
  scheduler_.Add(caller, RequestScheduler::kDear, gone);
  scheduler_.Add(caller, RequestScheduler::kDear, stays);
  scheduler_.Remove(*caller, *gone);
  EXPECT_EQ(gone.use_count(), 1) << "nothing of it is held";
  RunAll();
  EXPECT_EQ(log_, "Y");
  scheduler_.Add(caller, RequestScheduler::kDear, gone);
  scheduler_.Remove(*caller, *gone);
  scheduler_.Remove(*caller, *gone);
  EXPECT_FALSE(scheduler_.RunSome());
  Dear(caller, 'Z');
  RunAll();
  EXPECT_EQ(log_, "YZ");
}

TEST_F(RequestSchedulerTest, LetsARequestRemoveOthersOfTheSameRound) {
  const Caller other = Process(2);
  const auto gone = std::make_shared<Noted>(log_, 'b', nullptr);
  Cheap(Process(1), 'a', [&] { scheduler_.Remove(*other, *gone); });
  scheduler_.Add(other, RequestScheduler::kCheap, gone);
  RunAll();
  EXPECT_EQ(log_, "a");
}

TEST_F(RequestSchedulerTest, TakesOneProcessForOneCallerHoweverManyConnectionsItHas) {
  const Caller one = Process(1);
  EXPECT_EQ(Process(1), one);
  EXPECT_NE(Process(2), one);
  EXPECT_NE(scheduler_.CallerOf({1001, {}, 1}), one);
}

}  // namespace
}  // namespace tevra::msgbus

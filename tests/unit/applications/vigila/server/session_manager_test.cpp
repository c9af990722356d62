#include "vigila/server/session_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/memory/memory_shortage.h"
#include "vigila/check/explicit_time_source.h"
#include "vigila/model/user.h"

namespace vigila::server {
namespace {

using model::User;
using tevra::check::ExplicitTimeSource;
using tevra::osa::TimeStruct;

// A clock that may be set while others read it.
class SharedClock final : public tevra::osa::ITimeSource {
 public:
  void GetTime(TimeStruct& now) const override { now = TimeStruct(seconds, 0); }

  std::atomic<int64_t> seconds{1000};
};

class CountedUser final : public User {
 public:
  CountedUser(const std::string& name, std::atomic<int>* alive)
      : User(name, "digest", tevra::interfaces::ISecurityProvider::kViewers, {}), alive_(*alive) {
    ++alive_;
  }
  ~CountedUser() override { --alive_; }

 private:
  std::atomic<int>& alive_;
};

User* NewUser(const std::string& name) {
  return new User(name, "digest", tevra::interfaces::ISecurityProvider::kViewers, {});
}

TEST(SessionManager, KeepsSessionsForHalfAnHourUnlessToldOtherwise) {
  EXPECT_EQ(SessionManager::kDefaultTimeoutSecs, 1800);
}

TEST(SessionManager, ForwardsEveryOperation) {
  ExplicitTimeSource clock;
  clock.SetTime(TimeStruct(1000, 0));
  SessionManager manager(&clock, 60);
  User* const record = NewUser("alice");
  record->SetReusable(true);

  const std::string token = manager.Enroll(record);
  EXPECT_EQ(manager.GetUser(token), record);
  std::string reused;
  EXPECT_TRUE(manager.FindReusable("alice", "digest", reused));
  EXPECT_EQ(reused, token);
  clock.SetTime(TimeStruct(1060, 0));
  EXPECT_TRUE(manager.Refresh(token));
  manager.SetTimeout(5);
  clock.SetTime(TimeStruct(1066, 0));
  EXPECT_FALSE(manager.Refresh(token));

  const std::string second = manager.Enroll(NewUser("alice"));
  EXPECT_TRUE(manager.Cancel(second));
  const std::string third = manager.Enroll(NewUser("alice"));
  manager.Invalidate("alice");
  EXPECT_EQ(manager.GetUser(third), nullptr);
}

TEST(SessionManager, DrawsTokensOfEightUpperCaseDigitsWithinTheirRange) {
  ExplicitTimeSource clock;
  SessionManager manager(&clock, 60);
  std::set<std::string> tokens;
  for (int i = 0; i < 2000; ++i) {
    const std::string token = manager.Enroll(NewUser("alice"));
    ASSERT_THAT(token, testing::MatchesRegex("[0-9A-F]{8}"));
    const unsigned long value = std::strtoul(token.c_str(), nullptr, 16);
    ASSERT_GE(value, 1u);
    ASSERT_LE(value, 610839791u);
    tokens.insert(token);
  }
  EXPECT_EQ(tokens.size(), 2000u);
}

TEST(SessionManager, LeavesTheRecordToItsCallerWhereverMemoryRunsOut) {
  if (!support::MemoryShortage::kWorks) GTEST_SKIP() << "memory does not run out in this build";
  ExplicitTimeSource clock;
  SessionManager manager(&clock, 60);
  std::atomic<int> alive{0};
  bool met = true;
  int nth = 0;
  while (met) {
    auto record = std::make_unique<CountedUser>("alice", &alive);
    record->SetReusable(true);
    std::string token;
    {
      const support::MemoryShortage shortage(++nth);
      try {
        token = manager.Enroll(record.get());
      } catch (const std::bad_alloc&) {
      }
      met = shortage.WasMet();
    }
    ASSERT_EQ(token.empty(), met) << nth;
    if (!met) static_cast<void>(record.release());
    std::string reused;
    EXPECT_NE(manager.FindReusable("alice", "digest", reused), met) << nth;
    EXPECT_EQ(reused, token);
    manager.Invalidate("*");
    EXPECT_EQ(alive, met ? 1 : 0) << nth;
  }
  EXPECT_GE(nth, 5);
}

TEST(SessionManager, KeepsASessionThatMemoryRanOutForWhenItWasRefreshed) {
  if (!support::MemoryShortage::kWorks) GTEST_SKIP() << "memory does not run out in this build";
  ExplicitTimeSource clock;
  bool met = true;
  for (int nth = 1; met; ++nth) {
    SessionManager manager(&clock, 60);
    clock.SetTime(TimeStruct(1000, 0));
    const std::string token = manager.Enroll(NewUser("alice"));
    manager.Enroll(NewUser("bob"));
    clock.SetTime(TimeStruct(900, 0));
    {
      const support::MemoryShortage shortage(nth);
      try {
        manager.Refresh(token);
      } catch (const std::bad_alloc&) {
      }
      met = shortage.WasMet();
    }
    ASSERT_NE(manager.GetUser(token), nullptr);
    EXPECT_EQ(manager.GetUser(token)->LastAccess(), TimeStruct(met ? 1000 : 900, 0));
    clock.SetTime(TimeStruct(1000, 0));
    EXPECT_EQ(manager.GetUser(token) != nullptr, met) << "as old as it says";
    clock.SetTime(TimeStruct(1061, 0));
    EXPECT_EQ(manager.GetUser(token), nullptr);
  }
}

TEST(SessionManager, TakesCallsFromSeveralThreads) {
  ExplicitTimeSource clock;
  clock.SetTime(TimeStruct(1000, 0));
  SessionManager manager(&clock, 60);
  std::atomic<int> refreshed{0};
  const auto work = [&manager, &refreshed](int id) {
    const std::string name = "user" + std::to_string(id);
    for (int i = 0; i < 300; ++i) {
      const std::string token = manager.Enroll(NewUser(name));
      if (manager.Refresh(token)) ++refreshed;
      std::string reused;
      manager.FindReusable(name, "digest", reused);
      if (i % 3 == 0) manager.Cancel(token);
      if (i % 50 == 0) manager.Invalidate(name);
      if (i % 70 == 0) manager.SetTimeout(60 + i);
    }
  };
  std::vector<std::thread> threads;
  for (int id = 0; id < 4; ++id) threads.emplace_back(work, id);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(refreshed, 1200);
}

TEST(SessionManager, EndsEverySessionOnceWhileThreadsCallAndTheClockJumps) {
  SharedClock clock;
  std::atomic<int> alive{0};
  SessionManager manager(&clock, 2);
  const auto work = [&](int id) {
    const std::string name = "user" + std::to_string(id % 2);
    std::string reused;
    for (int i = 0; i < 300; ++i) {
      auto* const record = new CountedUser(name, &alive);
      record->SetReusable(true);
      const std::string token = manager.Enroll(record);
      clock.seconds += i % 31 == 0 ? -1 : i % 3 == 0;
      manager.Refresh(token);
      manager.FindReusable(name, "digest", reused);
      manager.GetUser(reused);
      if (i % 5 == 0) manager.Cancel(reused);
      if (i % 40 == 0) manager.Invalidate(id == 0 ? "*" : name);
    }
  };
  std::vector<std::thread> threads;
  for (int id = 0; id < 4; ++id) threads.emplace_back(work, id);
  for (std::thread& thread : threads) thread.join();

  EXPECT_GE(alive, 0);
  clock.seconds += 1000;
  EXPECT_FALSE(manager.Refresh(""));
  EXPECT_EQ(alive, 0);
}

}  // namespace
}  // namespace vigila::server

#include "vigila/server/session_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "vigila/check/explicit_time_source.h"
#include "vigila/model/user.h"

namespace vigila::server {
namespace {

using model::User;
using tevra::check::ExplicitTimeSource;
using tevra::osa::TimeStruct;

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

}  // namespace
}  // namespace vigila::server

#include "tevra/core/folded_log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/capturing_log.h"

namespace tevra::core {
namespace {

class FoldedLogTest : public testing::Test {
 protected:
  void Write(uid_t user, const std::string& cause, const std::string& text) {
    folded_.Write(Logger::kNotice, user, cause, text);
  }
  std::vector<std::string> Lines() {
    std::vector<std::string> lines = log_.TextsOf("Folded");
    log_.Clear();
    return lines;
  }

  std::chrono::steady_clock::time_point now_{};
  support::CapturingLog log_;
  FoldedLog folded_{Logger::GetLogger("Folded"), [this] { return now_; }};
};

TEST_F(FoldedLogTest, WritesTheFirstAtOnceAndWhatFollowsAfterAMinuteAsOneLine) {
  for (int i = 1; i <= 1000; ++i) Write(7, "role", "refusal " + std::to_string(i));
  EXPECT_EQ(Lines(), std::vector<std::string>{"refusal 1"});
  now_ += std::chrono::seconds(59);
  Write(7, "role", "refusal 1001");
  EXPECT_EQ(Lines(), std::vector<std::string>{});
  now_ += std::chrono::seconds(1);
  Write(7, "role", "refusal 1002");
  EXPECT_EQ(Lines(), std::vector<std::string>{"refusal 1001 (and 999 like it)"});
}

TEST_F(FoldedLogTest, KeepsUsersAndCausesApart) {
  Write(7, "role", "one");
  Write(8, "role", "two");
  Write(7, "form", "three");
  EXPECT_EQ(Lines(), (std::vector<std::string>{"one", "two", "three"}));
}

TEST_F(FoldedLogTest, ForgetsWhoHasBeenQuietForAMinute) {
  Write(7, "role", "one");
  now_ += std::chrono::minutes(1);
  Write(7, "role", "two");
  EXPECT_EQ(Lines(), (std::vector<std::string>{"one", "two"}));
}

TEST_F(FoldedLogTest, WritesWhatWasFoldedAlsoWhenOnlyOthersGoOn) {
  Write(7, "role", "one");
  Write(7, "role", "two");
  now_ += std::chrono::minutes(1);
  Write(8, "role", "three");
  EXPECT_EQ(Lines(), (std::vector<std::string>{"one", "two", "three"}));
}

TEST_F(FoldedLogTest, CountsTheRestTogetherPastManyUsers) {
  for (uid_t user = 0; user < 10000; ++user) Write(user, "role", "refusal");
  EXPECT_EQ(Lines().size(), 257u);
}

}  // namespace
}  // namespace tevra::core

#include "vigila-gateway/auth/used_tokens.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::chrono::seconds;
using vigila::gateway::UsedTokens;
using vigila::gateway::WsseLogon;
using Standing = vigila::gateway::UsedTokens::Standing;

constexpr seconds kDay{86400};

class TheUsedTokens : public testing::Test {
 protected:
  static WsseLogon Logon(int number, const std::string& user = "view") {
    return {user, "digest " + std::to_string(number), "nonce", "created"};
  }
  Standing Take(const WsseLogon& logon, bool accepted = true) {
    const Standing standing = tokens_.Take(logon);
    if (standing == Standing::kNew) tokens_.Settle(logon, accepted);
    return standing;
  }
  // Time goes by.
  void Pass(seconds span) {
    steady_ += span;
    system_ += span;
  }
  // The clock is set.
  void Step(seconds span) { system_ += span; }

  UsedTokens::SteadyClock::time_point steady_{seconds(1000)};
  UsedTokens::SystemClock::time_point system_{365 * kDay};
  UsedTokens tokens_{{8, 6}, {[this] { return steady_; }, [this] { return system_; }}};
};

TEST_F(TheUsedTokens, AreTakenOnce) {
  EXPECT_EQ(Take(Logon(1)), Standing::kNew);
  EXPECT_EQ(Take(Logon(1)), Standing::kUsed);
  EXPECT_EQ(Take(Logon(2)), Standing::kNew);
}

TEST_F(TheUsedTokens, AreThoseThatWereAccepted) {
  EXPECT_EQ(Take(Logon(1), false), Standing::kNew);
  EXPECT_EQ(tokens_.Size(), 0u);
  EXPECT_EQ(Take(Logon(1)), Standing::kNew);
  EXPECT_EQ(Take(Logon(1)), Standing::kUsed);
}

TEST_F(TheUsedTokens, CountAsUsedWhileTheServiceIsAsked) {
  EXPECT_EQ(tokens_.Take(Logon(1)), Standing::kNew);
  EXPECT_EQ(tokens_.Take(Logon(1)), Standing::kUsed);
  tokens_.Settle(Logon(1), false);
  EXPECT_EQ(tokens_.Take(Logon(1)), Standing::kNew);
}

TEST_F(TheUsedTokens, AreKnownByTheirDigestHoweverTheRestIsWritten) {
  EXPECT_EQ(Take({"view", "d", "bm9uY2U=", "2026-01-02T03:04:05Z"}), Standing::kNew);
  EXPECT_EQ(Take({"view", "d", "bm9uY2Uy", "026-01-02T03:04:05Z"}), Standing::kUsed);
  EXPECT_EQ(Take({"View", "d", "bm9uY2U=", "2026-01-02T03:04:05Z"}), Standing::kUsed);
}

// Accepted with a creation time 300 whole seconds ahead, and again when it lies as far behind.
TEST_F(TheUsedTokens, AreRememberedForAsLongAsTheirCreationTimeIsGood) {
  EXPECT_EQ(Take(Logon(1)), Standing::kNew);
  Pass(seconds(602));
  EXPECT_EQ(Take(Logon(1)), Standing::kUsed);
  Pass(seconds(60));
  EXPECT_EQ(Take(Logon(1)), Standing::kUsed);
  Pass(seconds(1));
  EXPECT_EQ(Take(Logon(1)), Standing::kNew);
  EXPECT_EQ(tokens_.Size(), 1u);
}

TEST_F(TheUsedTokens, TellNothingMoreWhenTheyAreFullOfLivingOnes) {
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Take(Logon(i, "view")), Standing::kNew);
  Pass(seconds(100));
  for (int i = 5; i < 8; ++i) EXPECT_EQ(Take(Logon(i, "admin")), Standing::kNew);
  EXPECT_EQ(Take(Logon(8, "admin")), Standing::kCannotTell);
  // None of them was given up for it.
  for (int i = 0; i < 8; ++i) EXPECT_EQ(Take(Logon(i)), Standing::kUsed) << i;
  Pass(seconds(563));
  for (int i = 8; i < 13; ++i)
    EXPECT_EQ(Take(Logon(i, "admin")), i < 11 ? Standing::kNew : Standing::kCannotTell) << i;
  EXPECT_EQ(Take(Logon(13, "view")), Standing::kNew);
  EXPECT_EQ(Take(Logon(14, "view")), Standing::kNew);
  EXPECT_EQ(Take(Logon(15, "view")), Standing::kCannotTell);
}

TEST_F(TheUsedTokens, OfOneUserShutNoOtherUserOut) {
  for (int i = 0; i < 6; ++i) EXPECT_EQ(Take(Logon(i)), Standing::kNew);
  EXPECT_EQ(Take(Logon(6)), Standing::kCannotTell);
  EXPECT_EQ(Take(Logon(6, "admin")), Standing::kNew);
  Pass(seconds(663));
  EXPECT_EQ(Take(Logon(7)), Standing::kNew);
}

TEST_F(TheUsedTokens, AreNotForgottenWhenTheClockGoesForward) {
  EXPECT_EQ(Take(Logon(1)), Standing::kNew);
  Step(3650 * kDay);
  EXPECT_EQ(Take(Logon(1)), Standing::kUsed);
  Step(-3650 * kDay);
  EXPECT_EQ(Take(Logon(1)), Standing::kUsed);
}

TEST_F(TheUsedTokens, DoNotBecomeNewWhenTheClockIsSetBack) {
  EXPECT_EQ(Take(Logon(1)), Standing::kNew);
  Step(-seconds(3600));
  EXPECT_EQ(Take(Logon(1)), Standing::kUsed);
  // Forgotten by now, but the hour in which it is good comes again.
  Pass(seconds(700));
  EXPECT_EQ(Take(Logon(1)), Standing::kNew);
  Pass(seconds(2299));
  EXPECT_EQ(Take(Logon(2)), Standing::kCannotTell);
  Pass(seconds(1202));
  EXPECT_EQ(Take(Logon(2)), Standing::kCannotTell);
  Pass(seconds(1));
  EXPECT_EQ(Take(Logon(2)), Standing::kNew);
}

TEST_F(TheUsedTokens, AreUnknownAfterAStepBackToATimeOfWhichSomeAreForgotten) {
  EXPECT_EQ(Take(Logon(1)), Standing::kNew);
  Pass(seconds(663));
  EXPECT_EQ(Take(Logon(2)), Standing::kNew);
  // What is forgotten stays out of reach.
  Step(-seconds(61));
  EXPECT_EQ(Take(Logon(3)), Standing::kNew);
  Step(-seconds(1));
  EXPECT_EQ(Take(Logon(4)), Standing::kCannotTell);
  Step(seconds(1));
  EXPECT_EQ(Take(Logon(4)), Standing::kNew);
}

TEST_F(TheUsedTokens, RefuseNothingAfterAWrongTimeFarAheadWasCorrected) {
  Step(3650 * kDay);
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(Take(Logon(i)), Standing::kNew);
    Pass(seconds(300));
  }
  Step(-3650 * kDay);
  for (int i = 30; i < 60; ++i) {
    EXPECT_EQ(Take(Logon(i)), Standing::kNew);
    Pass(seconds(300));
  }
  Step(3650 * kDay - seconds(9000));
  EXPECT_EQ(Take(Logon(99)), Standing::kCannotTell);
}

TEST_F(TheUsedTokens, OfManyWrongTimesLoseNoneOfThem) {
  constexpr int kTimes = 40;
  for (int i = 0; i < kTimes; ++i) {
    EXPECT_EQ(Take(Logon(i)), Standing::kNew);
    Pass(seconds(700));
    Step(kDay);
  }
  EXPECT_EQ(Take(Logon(kTimes)), Standing::kNew);
  for (int i = 0; i < kTimes; ++i) {
    Step(-kDay - seconds(700));
    EXPECT_EQ(Take(Logon(i)), Standing::kCannotTell) << i;
  }
}

TEST_F(TheUsedTokens, AreTakenByOneOfManyThreads) {
  UsedTokens tokens({100000, 100000}, {});
  std::atomic<int> taken{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        if (tokens.Take(Logon(i)) != Standing::kNew) continue;
        ++taken;
        tokens.Settle(Logon(i), true);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(taken, 2000);
  EXPECT_EQ(tokens.Size(), 2000u);
}

}  // namespace

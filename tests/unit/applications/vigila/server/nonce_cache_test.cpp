#include "vigila/server/nonce_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/memory/memory_shortage.h"
#include "vigila/check/explicit_time_source.h"

namespace vigila::server {
namespace {

using tevra::check::ExplicitTimeSource;
using tevra::osa::TimeStruct;

class NonceCacheTest : public testing::Test {
 protected:
  static constexpr int64_t kStart = 1'000'000;

  void SetUp() override { At(kStart); }

  void At(int64_t seconds, int32_t microseconds = 0) {
    clock_.SetTime(TimeStruct(seconds, microseconds));
  }
  // Accepted, without touching any count.
  bool Knows(const std::string& nonce) { return !cache_.CheckNonceAndCount(nonce, ""); }
  bool Accepts(const std::string& nc) { return !cache_.CheckNonceAndCount("nonce", nc); }

  static std::string Nonce(int number) {
    char text[16];
    std::snprintf(text, sizeof(text), "%06d", number);
    return text;
  }

  ExplicitTimeSource clock_;
  NonceCache cache_{&clock_};
};

TEST_F(NonceCacheTest, KnowsANonceFromTheFirstQuestionOn) {
  EXPECT_FALSE(cache_.Has("nonce"));
  EXPECT_TRUE(cache_.Has("nonce"));
  EXPECT_FALSE(cache_.Has("Nonce"));
  EXPECT_FALSE(cache_.Has(""));
  EXPECT_TRUE(cache_.Has(""));
  EXPECT_FALSE(cache_.Has(std::string("nonce\0", 6)));
}

TEST_F(NonceCacheTest, RejectsANonceThatWasNeverIssued) {
  EXPECT_TRUE(cache_.CheckNonceAndCount("nonce", "00000001"));
  EXPECT_TRUE(cache_.CheckNonceAndCount("nonce", ""));
  EXPECT_FALSE(cache_.Has("nonce")) << "a check does not issue";
}

TEST_F(NonceCacheTest, KeepsANonceThatIsExactlyAtItsExpiry) {
  cache_.Has("nonce");
  At(kStart + 300);
  EXPECT_TRUE(Accepts("1"));
  At(kStart + 300, 1);
  EXPECT_FALSE(Accepts("2"));
  EXPECT_FALSE(cache_.Has("nonce"));
}

TEST_F(NonceCacheTest, CountsTheSubSecondPartOfAnAge) {
  At(kStart, 999'999);
  cache_.Has("nonce");
  At(kStart + 300, 999'999);
  EXPECT_TRUE(Knows("nonce"));
  At(kStart + 301, 0);
  EXPECT_FALSE(Knows("nonce"));
}

TEST_F(NonceCacheTest, DoesNotExtendALifeByUse) {
  cache_.Has("nonce");
  At(kStart + 299);
  EXPECT_TRUE(cache_.Has("nonce"));
  EXPECT_TRUE(Accepts("1"));
  At(kStart + 301);
  EXPECT_FALSE(Accepts("2"));
}

TEST_F(NonceCacheTest, AcceptsOnlyAGreaterCount) {
  cache_.Has("nonce");
  EXPECT_TRUE(Accepts("00000001"));
  EXPECT_TRUE(Accepts("00000002"));
  EXPECT_FALSE(Accepts("00000002"));
  EXPECT_FALSE(Accepts("00000001"));
  EXPECT_TRUE(Accepts("00000005"));
  EXPECT_FALSE(Accepts("00000004"));
  EXPECT_TRUE(Accepts("0000000a"));
  EXPECT_FALSE(Accepts("0000000A"));
  EXPECT_TRUE(Accepts("0000000B"));
}

TEST_F(NonceCacheTest, RejectsACountOfZero) {
  cache_.Has("nonce");
  EXPECT_FALSE(Accepts("00000000"));
  EXPECT_FALSE(Accepts("0"));
}

TEST_F(NonceCacheTest, AcceptsAnEmptyCountAndForgetsIt) {
  cache_.Has("nonce");
  EXPECT_TRUE(Accepts("7"));
  EXPECT_TRUE(Accepts(""));
  EXPECT_TRUE(Accepts(""));
  EXPECT_FALSE(Accepts("7"));
  EXPECT_TRUE(Accepts("8"));
}

TEST_F(NonceCacheTest, KeepsACountForEachNonce) {
  cache_.Has("nonce");
  cache_.Has("other");
  EXPECT_TRUE(Accepts("5"));
  EXPECT_FALSE(cache_.CheckNonceAndCount("other", "5"));
  EXPECT_TRUE(cache_.CheckNonceAndCount("other", "5"));
}

TEST_F(NonceCacheTest, ReadsCountsAsTheCLibraryDoes) {
  const struct {
    const char* text;
    bool accepted;
  } kCases[] = {
      {" \t\n1", true},            // 1
      {"0x2", true},               // 2
      {"0X3", true},               // 3
      {"+4", true},                // 4
      {"5 and more", true},        // 5
      {"0x", false},               // 0
      {"xyz", false},              // 0
      {" ", false},                // 0
      {"-0", false},               // 0
      {"g6", false},               // 0
      {"6g", true},                // 6
      {"ffffffff", true},          // more than 32 bits hold as a signed number
      {"100000000", true},         // one more, which 32 bits do not hold
      {"fffffffffffffffe", true},  // the last but one
      {"-1", true},                // the greatest number
      {"ffffffffffffffff", false},
      {"ffffffffffffffffff", false},  // too long to read: the greatest number again
  };
  cache_.Has("nonce");
  for (const auto& test : kCases) EXPECT_EQ(Accepts(test.text), test.accepted) << test.text;
}

TEST_F(NonceCacheTest, ReadsACountBeyondAllBoundsAsTheGreatestNumber) {
  cache_.Has("nonce");
  EXPECT_TRUE(Accepts("10000000000000000"));
  EXPECT_FALSE(Accepts("ffffffffffffffff"));
}

TEST_F(NonceCacheTest, ReadsACountUpToAZeroByte) {
  cache_.Has("nonce");
  EXPECT_TRUE(Accepts(std::string("2\0ff", 4)));
  EXPECT_TRUE(Accepts("3"));
  EXPECT_FALSE(Accepts(std::string("\0004", 2)));
  EXPECT_TRUE(Accepts(std::string(100'000, ' ') + "4"));
}

TEST_F(NonceCacheTest, KeepsALimitedNumberOfNonces) {
  for (int i = 0; i < 1024; ++i) {
    At(kStart, i);
    cache_.Has(Nonce(i));
  }
  EXPECT_TRUE(Knows(Nonce(0)));
  At(kStart, 2000);
  EXPECT_FALSE(cache_.Has("newest")) << "the 1025th is tolerated until the next pass";
  EXPECT_FALSE(Knows(Nonce(0)));
  EXPECT_TRUE(Knows(Nonce(1)));
  EXPECT_TRUE(Knows("newest"));
}

TEST_F(NonceCacheTest, EvictsBeforeItLooksUp) {
  for (int i = 0; i < 1025; ++i) {
    At(kStart, i);
    cache_.Has(Nonce(i));
  }
  EXPECT_FALSE(cache_.Has(Nonce(0))) << "evicted by the pass of the very question";
  EXPECT_FALSE(cache_.Has(Nonce(1)));
  EXPECT_TRUE(Knows(Nonce(3)));
}

TEST_F(NonceCacheTest, EvictsTheSmallerNonceOfOneInstant) {
  for (int i = 1024; i >= 0; --i) cache_.Has(Nonce(i));
  EXPECT_FALSE(Knows(Nonce(0)));
  EXPECT_TRUE(Knows(Nonce(1)));
}

TEST_F(NonceCacheTest, EvictsByCreationAlsoWhenTheClockStepsBack) {
  for (int i = 0; i < 1024; ++i) cache_.Has(Nonce(i));
  At(kStart - 50);
  cache_.Has("after the step");
  EXPECT_FALSE(Knows("after the step")) << "the oldest by its stamp";
  EXPECT_TRUE(Knows(Nonce(0)));
}

TEST_F(NonceCacheTest, KeepsNoncesOfTheFutureWhenTheClockStepsBack) {
  cache_.Has("future");
  At(kStart - 10'000);
  cache_.Has("present");
  At(kStart - 10'000 + 301);
  EXPECT_FALSE(Knows("present"));
  EXPECT_TRUE(Knows("future"));
}

TEST_F(NonceCacheTest, EvictsNothingWhenExpiryMadeRoom) {
  for (int i = 0; i < 1024; ++i) {
    At(kStart + i / 512);
    cache_.Has(Nonce(i));
  }
  At(kStart + 300);
  cache_.Has("newest");
  At(kStart + 300, 1);
  EXPECT_FALSE(Knows(Nonce(511)));
  EXPECT_TRUE(Knows(Nonce(512)));
}

// The cache as one map that is walked on every call; slow, and plainly right.
class WalkedNonces {
 public:
  void Pass(const TimeStruct& now) {
    auto oldest = entries_.end();
    for (auto it = entries_.begin(); it != entries_.end();) {
      TimeStruct expiry = it->second;
      expiry += 300'000'000;
      if (now > expiry) {
        it = entries_.erase(it);
        continue;
      }
      if (oldest == entries_.end() || it->second < oldest->second) oldest = it;
      ++it;
    }
    if (entries_.size() > 1024) entries_.erase(oldest);
  }
  bool Has(const std::string& nonce, const TimeStruct& now) {
    Pass(now);
    return !entries_.emplace(nonce, now).second;
  }
  bool Knows(const std::string& nonce, const TimeStruct& now) {
    Pass(now);
    return entries_.contains(nonce);
  }

 private:
  std::map<std::string, TimeStruct> entries_;
};

class NonceCacheHistory : public testing::TestWithParam<unsigned> {};

TEST_P(NonceCacheHistory, IsThatOfAWalkOverAllNonces) {
  ExplicitTimeSource clock;
  NonceCache cache(&clock);
  WalkedNonces walked;
  std::mt19937 random(GetParam());
  int64_t micros = 0;
  int known = 0;
  for (int step = 0; step < 4000; ++step) {
    const auto jump = random() % 200;
    if (jump == 0) micros -= static_cast<int64_t>(random() % 100'000'000);
    if (jump > 100) micros += static_cast<int64_t>(random() % 200'000);
    TimeStruct now(100'000, 0);
    now += micros;
    clock.SetTime(now);
    const std::string nonce = std::to_string(random() % 2500);
    if (random() % 3 != 0) {
      ASSERT_EQ(cache.Has(nonce), walked.Has(nonce, now)) << "at step " << step;
    } else {
      const bool accepted = !cache.CheckNonceAndCount(nonce, "");
      ASSERT_EQ(accepted, walked.Knows(nonce, now)) << "at step " << step;
      known += accepted;
    }
  }
  EXPECT_GT(known, 100);
}

INSTANTIATE_TEST_SUITE_P(Seeds, NonceCacheHistory, testing::Values(1u, 2u));

TEST_F(NonceCacheTest, KnowsNoNonceThatMemoryRanOutFor) {
  if (!support::MemoryShortage::kWorks) GTEST_SKIP() << "memory does not run out in this build";
  const std::string nonce(100, 'n');
  bool met = true;
  int nth = 0;
  while (met) {
    NonceCache cache(&clock_);
    {
      const support::MemoryShortage shortage(++nth);
      try {
        cache.Has(nonce);
      } catch (const std::bad_alloc&) {
      }
      met = shortage.WasMet();
    }
    EXPECT_EQ(cache.CheckNonceAndCount(nonce, ""), met) << nth;
    EXPECT_NE(cache.Has(nonce), met) << nth;
    At(kStart + 301);
    EXPECT_FALSE(cache.Has(nonce)) << nth;
    At(kStart);
  }
  EXPECT_GE(nth, 4);
}

TEST_F(NonceCacheTest, ExpiresForACallerThatHoldsTheMutex) {
  cache_.Has("old");
  At(kStart + 1);
  cache_.Has("young");
  const tevra::osa::MutexAutoLock lock(cache_.GetMutex());
  At(kStart + NonceCache::kLifetimeSecs);
  cache_.CheckExpire();
  EXPECT_EQ(2u, cache_.GetEntries().size());
  At(kStart + NonceCache::kLifetimeSecs, 1);
  cache_.CheckExpire();
  EXPECT_EQ(cache_.GetEntries().end(), cache_.Find("old"));
  EXPECT_NE(cache_.GetEntries().end(), cache_.Find("young"));
}

TEST_F(NonceCacheTest, EvictsTheOldestOfTooManyInOnePass) {
  for (int i = 0; i <= static_cast<int>(NonceCache::kMaxEntries); ++i) {
    At(kStart, i);
    cache_.Has(Nonce(i));
  }
  const tevra::osa::MutexAutoLock lock(cache_.GetMutex());
  EXPECT_EQ(NonceCache::kMaxEntries + 1, cache_.GetEntries().size());
  for (int pass = 0; pass < 2; ++pass) {
    cache_.CheckExpire();
    EXPECT_EQ(NonceCache::kMaxEntries, cache_.GetEntries().size());
    EXPECT_EQ(cache_.GetEntries().end(), cache_.Find(Nonce(0)));
    EXPECT_NE(cache_.GetEntries().end(), cache_.Find(Nonce(1)));
  }
}

TEST_F(NonceCacheTest, ChecksTheCountOfAnEntryThatWasFound) {
  cache_.Has("nonce");
  const tevra::osa::MutexAutoLock lock(cache_.GetMutex());
  const auto entry = cache_.Find("nonce");
  ASSERT_NE(cache_.GetEntries().end(), entry);
  EXPECT_FALSE(cache_.CheckCount(entry, "0000000A"));
  EXPECT_EQ(10u, entry->second.count);
  EXPECT_TRUE(cache_.CheckCount(entry, "0000000A"));
  EXPECT_TRUE(cache_.CheckCount(entry, "9"));
  EXPECT_TRUE(cache_.CheckCount(entry, "no digits"));
  EXPECT_FALSE(cache_.CheckCount(entry, ""));
  EXPECT_EQ(10u, entry->second.count);
}

TEST_F(NonceCacheTest, AcceptsACountOnceHoweverManyThreadsSendIt) {
  cache_.Has("nonce");
  std::vector<int> accepted(4, 0);
  std::vector<std::thread> threads;
  for (std::size_t id = 0; id < accepted.size(); ++id) {
    threads.emplace_back([this, id, &accepted] {
      for (int count = 1; count <= 1000; ++count) {
        char nc[16];
        std::snprintf(nc, sizeof(nc), "%08x", static_cast<unsigned>(count));
        if (!cache_.CheckNonceAndCount("nonce", nc)) ++accepted[id];
        cache_.Has(std::to_string(count));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  int total = 0;
  for (const int count : accepted) total += count;
  EXPECT_LE(total, 1000);
  EXPECT_TRUE(cache_.CheckNonceAndCount("nonce", "3e8")) << "the last count was accepted by one";
}

}  // namespace
}  // namespace vigila::server

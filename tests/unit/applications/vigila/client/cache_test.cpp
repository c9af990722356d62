#include "vigila/client/cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tevra/interfaces/revocation_page.h"
#include "vigila/check/explicit_time_source.h"

namespace vigila::client {
namespace {

using tevra::check::ExplicitTimeSource;
using tevra::interfaces::AnswerStamp;
using tevra::interfaces::RevocationPage;
using tevra::osa::TimeSpan;
using tevra::osa::TimeStruct;

// A key with an answer of the test's own; counts the living ones.
class Question final {
 public:
  using Answer = std::string;
  struct Key {
    int number;
    auto operator<=>(const Key&) const = default;
  };

  Question(int key, const std::string& answer) : key_(key), answer_(answer) { ++alive; }
  ~Question() { --alive; }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;

  bool IsLessThan(const Question& other) const { return key_ < other.key_; }
  Key GetKey() const { return {key_}; }
  const Answer& GetAnswer() const { return answer_; }

  static inline std::atomic<int> alive{0};

 private:
  const int key_;
  const std::string answer_;
};

class CacheTest : public testing::Test {
 protected:
  CacheTest() { At(100); }
  ~CacheTest() override {
    cache_.reset();
    EXPECT_EQ(Question::alive, 0);
  }

  void At(int64_t seconds, int32_t microseconds = 0) {
    clock_.SetTime(TimeStruct(seconds, microseconds));
  }
  void Store(int key, const std::string& answer) { Store(key, answer, cache_->Generation()); }
  void Store(int key, const std::string& answer, uint64_t generation) {
    cache_->Store(std::make_unique<const Question>(key, answer), generation, AnswerStamp(page_));
  }
  void StoreFor(const std::string& token, int key, const std::string& answer) {
    AnswerStamp stamp(page_);
    stamp.Concerns(token);
    cache_->Store(std::make_unique<const Question>(key, answer), cache_->Generation(),
                  std::move(stamp));
  }
  std::string Find(int key) {
    std::string answer = "miss";
    const bool found = cache_->FindLive(Question::Key{key}, answer);
    EXPECT_EQ(found, answer != "miss");
    return answer;
  }

  void Prune() {
    std::string answer;
    EXPECT_FALSE(cache_->FindLiveOrPrune(Question::Key{-1}, answer));
  }

  ExplicitTimeSource clock_;
  std::shared_ptr<RevocationPage> page_ = std::make_shared<RevocationPage>(1);
  std::unique_ptr<Cache<Question>> cache_ =
      std::make_unique<Cache<Question>>(TimeSpan::FromSeconds(1.5), clock_);
};

TEST_F(CacheTest, CountsHits) {
  Find(1);
  Store(1, "one");
  Find(1);
  Find(1);
  At(101, 500000);
  Find(1);
  EXPECT_EQ(cache_->Hits(), 2u);
}

TEST_F(CacheTest, AnswersAQuestionThatWasStored) {
  EXPECT_EQ(Find(1), "miss");
  Store(1, "one");
  Store(2, "two");
  EXPECT_EQ(Find(1), "one");
  EXPECT_EQ(Find(2), "two");
  EXPECT_EQ(Find(3), "miss");
  EXPECT_EQ(Question::alive, 2);
}

TEST_F(CacheTest, ExpiresAnEntryExactlyAtItsLifetime) {
  Store(1, "one");
  At(101, 499'999);
  EXPECT_EQ(Find(1), "one");
  At(102, 999'999);
  EXPECT_EQ(Find(1), "miss");
  EXPECT_EQ(cache_->Size(), 1u) << "a miss leaves the entry to the pruning";
}

TEST_F(CacheTest, KeepsAnEntryThatIsAskedForEverySecond) {
  Store(1, "one");
  for (int second = 101; second < 200; ++second) {
    At(second);
    EXPECT_EQ(Find(1), "one");
  }
  At(200, 500'000);
  EXPECT_EQ(Find(1), "miss");
}

TEST_F(CacheTest, DoesNotRenewAnEntryByAMiss) {
  Store(1, "one");
  At(101, 500'000);
  EXPECT_EQ(Find(1), "miss");
  At(101, 600'000);
  EXPECT_EQ(Find(1), "miss");
}

TEST_F(CacheTest, PrunesWhatHasExpiredAndNothingElse) {
  Store(1, "one");
  Store(2, "two");
  At(100, 1);
  Store(3, "three");
  At(101, 500'000);
  Prune();
  EXPECT_EQ(cache_->Size(), 1u);
  EXPECT_EQ(Question::alive, 1);
  EXPECT_EQ(Find(3), "three");
}

TEST_F(CacheTest, KeepsTheFirstOfTwoEqualAnswersAndRenewsIt) {
  Store(1, "first");
  At(101);
  Store(1, "second");
  EXPECT_EQ(Question::alive, 1);
  At(102, 499'999);
  EXPECT_EQ(Find(1), "first");
}

TEST_F(CacheTest, ClearsEverything) {
  for (int i = 0; i < 100; ++i) Store(i, "x");
  cache_->Clear();
  EXPECT_EQ(cache_->Size(), 0u);
  EXPECT_EQ(Question::alive, 0);
  EXPECT_EQ(Find(1), "miss");
}

TEST_F(CacheTest, DoesNotKeepAnAnswerFromBeforeAClear) {
  const uint64_t before = cache_->Generation();
  cache_->Clear();
  Store(1, "stale", before);
  EXPECT_EQ(Find(1), "miss");
  EXPECT_EQ(Question::alive, 0);
  Store(1, "fresh");
  Store(1, "stale", before);
  EXPECT_EQ(Find(1), "fresh");
}

TEST_F(CacheTest, DoesNotRenewAnEntryByAnAnswerFromBeforeAClear) {
  const uint64_t before = cache_->Generation();
  cache_->Clear();
  Store(1, "fresh");
  At(101);
  Store(1, "stale", before);
  At(101, 500'000);
  EXPECT_EQ(Find(1), "miss");
}

TEST_F(CacheTest, PrunesAllThatHasExpiredWhateverItsNumber) {
  for (int i = 0; i < 1000; ++i) Store(i, "old");
  At(101);
  for (int i = 0; i < 1000; i += 3) EXPECT_EQ(Find(i), "old");
  At(101, 500'000);
  Prune();
  EXPECT_EQ(cache_->Size(), 334u);
  EXPECT_EQ(Question::alive, 334);
  for (int i = 0; i < 1000; i += 3) EXPECT_EQ(Find(i), "old");
}

TEST_F(CacheTest, PrunesAllThatHasExpiredAlsoWhenTheClockWasSetBack) {
  At(200);
  Store(1, "late");
  At(100);
  Store(2, "early");
  At(150);
  Store(3, "between");
  At(100, 500'000);
  EXPECT_EQ(Find(1), "late") << "renewed to an earlier time";
  At(102);
  Prune();
  EXPECT_EQ(cache_->Size(), 1u);
  EXPECT_EQ(Find(3), "between");
}

TEST_F(CacheTest, GivesNoAnswerOnceTheEpochIsRaised) {
  Store(1, "one");
  page_->RaiseEpoch();
  EXPECT_EQ(Find(1), "miss");
}

TEST_F(CacheTest, GivesNoAnswerThatConcernsASessionOnceItHasEnded) {
  StoreFor("0F3A9C21", 1, "one");
  StoreFor("12C5F92F", 2, "two");
  Store(3, "three");
  page_->EndSession("0F3A9C21");
  EXPECT_EQ(Find(1), "miss");
  EXPECT_EQ(Find(2), "two");
  EXPECT_EQ(Find(3), "three");
}

TEST_F(CacheTest, GivesNoAnswerOnceTheServersTimeIsOver) {
  page_->LiveUntil(100'500'000'000);
  Store(1, "one");
  At(100, 499'999);
  EXPECT_EQ(Find(1), "one");
  At(100, 500'000);
  EXPECT_EQ(Find(1), "miss");
  page_->LiveUntil(101'000'000'000);
  EXPECT_EQ(Find(1), "one") << "it only hung, and has taken nothing back";
}

TEST_F(CacheTest, NeverGivesAnAnswerWithoutAPage) {
  page_.reset();
  Store(1, "one");
  EXPECT_EQ(Find(1), "miss");
}

TEST_F(CacheTest, ReplacesAnAnswerThatWasTakenBack) {
  StoreFor("t", 1, "before");
  Store(2, "other");
  page_->EndSession("t");
  StoreFor("t", 1, "after");
  EXPECT_EQ(Find(1), "after");
  EXPECT_EQ(Find(2), "other");
  EXPECT_EQ(Question::alive, 2);
  At(101, 500'000);
  Prune();
  EXPECT_EQ(cache_->Size(), 0u);
}

TEST_F(CacheTest, PrunesNothingWhenItFindsTheAnswer) {
  Store(1, "one");
  At(101);
  Store(2, "two");
  At(101, 500'000);
  std::string answer;
  EXPECT_TRUE(cache_->FindLiveOrPrune(Question::Key{2}, answer));
  EXPECT_EQ(answer, "two");
  EXPECT_EQ(cache_->Size(), 2u);
}

// A question that is missed in between must not lead another one's answer astray.
TEST_F(CacheTest, KeepsAnswersInAnyOrderBehindTheirQuestions) {
  for (const int key : {7, 3, 9, 1, 5}) Store(key, std::to_string(key));
  EXPECT_EQ(Find(8), "miss");
  Store(2, "2");
  EXPECT_EQ(Find(2), "2");
  EXPECT_EQ(Find(6), "miss");
  EXPECT_EQ(Find(4), "miss");
  Store(6, "6");
  Store(4, "4");
  EXPECT_EQ(Find(8), "miss");
  cache_->Clear();
  Store(8, "8");
  EXPECT_EQ(Find(9), "miss");
  At(101, 500'000);
  Prune();
  Store(9, "9");
  EXPECT_EQ(Find(9), "9");
  EXPECT_EQ(cache_->Size(), 1u);
}

TEST_F(CacheTest, LeavesTheAnswerAloneOnAMiss) {
  std::string answer = "before";
  EXPECT_FALSE(cache_->FindLive(Question::Key{1}, answer));
  EXPECT_EQ(answer, "before");
}

TEST(Cache, TakesThreadsThatFindStorePruneAndClear) {
  class Ticking final : public tevra::osa::ITimeSource {
   public:
    void GetTime(TimeStruct& now) const override {
      now = TimeStruct(0, 0);
      now += 1000 * ticks_.fetch_add(1);
    }

   private:
    mutable std::atomic<int64_t> ticks_{0};
  };
  {
    const Ticking clock;
    const auto page = std::make_shared<RevocationPage>(1);
    Cache<Question> cache(TimeSpan::FromSeconds(1.5), clock);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int id = 0; id < 3; ++id) {
      threads.emplace_back([&cache, &wrong, &page] {
        for (int i = 0; i < 2000; ++i) {
          const int key = i % 37;
          const std::string right = std::to_string(key) + " and enough to be on the heap";
          std::string answer;
          if (cache.FindLiveOrPrune(Question::Key{key}, answer)) {
            if (answer != right) ++wrong;
            continue;
          }
          const uint64_t generation = cache.Generation();
          AnswerStamp stamp(page);
          stamp.Concerns(std::to_string(key));
          cache.Store(std::make_unique<const Question>(key, right), generation, std::move(stamp));
        }
      });
    }
    threads.emplace_back([&cache] {
      for (int i = 0; i < 500; ++i) cache.Clear();
    });
    threads.emplace_back([&page] {
      for (int i = 0; i < 2000; ++i) {
        if (i % 10 == 0) page->RaiseEpoch();
        page->EndSession(std::to_string(i % 37));
      }
    });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
  }
  EXPECT_EQ(Question::alive, 0);
}

}  // namespace
}  // namespace vigila::client

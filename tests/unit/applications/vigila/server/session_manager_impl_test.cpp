#include "vigila/server/session_manager_impl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/capturing_log.h"
#include "tevra/osa/exception.h"
#include "vigila/check/explicit_time_source.h"

namespace vigila::server {

struct SessionManagerPeer {
  // Puts a session under a token that no draw can give.
  static void Add(SessionManager::SessionManagerImpl& manager, const std::string& token,
                  model::User* user) {
    tevra::osa::MutexAutoLock lock(manager.mutex_);
    manager.AddSession(token, user);
  }
  static bool IsLocked(SessionManager::SessionManagerImpl& manager) {
    try {
      tevra::osa::MutexAutoLock lock(manager.mutex_, 0);
      return false;
    } catch (const tevra::osa::Exception&) {
      return true;
    }
  }
};

namespace {

using model::User;
using testing::ElementsAre;
using testing::IsEmpty;
using tevra::check::ExplicitTimeSource;
using tevra::osa::TimeStruct;

constexpr const char* kManagerLog = "SessionManagerImpl";
constexpr const char* kRandomLog = "SessionManager::GetRandomBytes";
constexpr const char* kWarning = "could not open /dev/urandom, sourcing from less reliable rng";

// Delivers what the test put in: values, single chunks of bytes, an end of file, or errors.
class ScriptedDevice final : public RandomDevice {
 public:
  void Deliver(int32_t value) {
    std::string bytes(sizeof(value), '\0');
    std::memcpy(bytes.data(), &value, sizeof(value));
    steps.push_back({bytes, 0});
  }
  void DeliverBytes(const std::string& bytes) { steps.push_back({bytes, 0}); }
  void Fail(int error) { steps.push_back({"", error}); }
  void End() { steps.push_back({"", 0}); }

  int Open() override {
    ++opened;
    return open_result;
  }
  ssize_t Read(int file, void* data, std::size_t length) override {
    EXPECT_EQ(file, open_result);
    asked.push_back(length);
    if (steps.empty()) return 0;
    const Step step = steps.front();
    steps.pop_front();
    if (step.error != 0) {
      errno = step.error;
      return -1;
    }
    EXPECT_LE(step.bytes.size(), length);
    std::memcpy(data, step.bytes.data(), step.bytes.size());
    return static_cast<ssize_t>(step.bytes.size());
  }
  void Close(int file) override {
    EXPECT_EQ(file, open_result);
    ++closed;
  }

  int open_result = 7;
  int opened = 0;
  int closed = 0;
  std::vector<std::size_t> asked;

 private:
  struct Step {
    std::string bytes;
    int error;
  };
  std::deque<Step> steps;
};

// Shows one time and notes, at every reading, whether the manager was locked.
class WatchingClock final : public tevra::osa::ITimeSource {
 public:
  void GetTime(TimeStruct& now) const override {
    now = TimeStruct(1000, 0);
    if (manager != nullptr) was_locked.push_back(SessionManagerPeer::IsLocked(*manager));
  }

  SessionManager::SessionManagerImpl* manager = nullptr;
  mutable std::vector<bool> was_locked;
};

class CountedUser final : public User {
 public:
  CountedUser(const std::string& name, const std::string& digest, int* alive)
      : User(name, digest, tevra::interfaces::ISecurityProvider::kViewers, {}), alive_(alive) {
    ++*alive_;
  }
  ~CountedUser() override { --*alive_; }

 private:
  int* const alive_;
};

class SessionManagerImplTest : public testing::Test {
 protected:
  static constexpr int64_t kStart = 1'000'000;

  void SetUp() override { At(kStart); }

  void At(int64_t seconds, int32_t microseconds = 0) {
    clock_.SetTime(TimeStruct(seconds, microseconds));
  }

  CountedUser* NewUser(const std::string& name, bool reusable = false,
                       const std::string& digest = "digest") {
    auto* const user = new CountedUser(name, digest, &alive_);
    user->SetReusable(reusable);
    return user;
  }

  std::string Enroll(int32_t draw, const std::string& name, bool reusable = false,
                     const std::string& digest = "digest") {
    device_.Deliver(draw);
    return manager_.Enroll(NewUser(name, reusable, digest));
  }

  // Every line of the manager; each is Information.
  std::vector<std::string> Log() const {
    EXPECT_EQ(log_.TextsOf(kManagerLog),
              log_.TextsOf(kManagerLog, support::CapturingLog::Level::kInformation));
    return log_.TextsOf(kManagerLog);
  }

  support::CapturingLog log_;
  int alive_ = 0;
  ExplicitTimeSource clock_;
  ScriptedDevice device_;
  SessionManager::SessionManagerImpl manager_{&clock_, SessionManager::kDefaultTimeoutSecs,
                                              device_};
};

TEST_F(SessionManagerImplTest, MapsEveryDrawIntoTheTokenRange) {
  EXPECT_EQ(Enroll(0, "alice"), "12345678");
  EXPECT_EQ(Enroll(INT32_MIN, "alice"), "11A2B3C0");
  EXPECT_EQ(Enroll(INT32_MAX, "alice"), "12C5F92F");
  EXPECT_EQ(Enroll(-305419895, "alice"), "00000001");
  EXPECT_EQ(Enroll(305419895, "alice"), "2468ACEF");
  EXPECT_EQ(Enroll(-305419896 - 1, "alice"), "12345677");
  EXPECT_EQ(Enroll(305419896 + 1, "alice"), "12345679");
}

TEST_F(SessionManagerImplTest, DrawsAgainWhenTheTokenIsTaken) {
  device_.Deliver(5);
  const std::string first = manager_.Enroll(NewUser("alice"));
  device_.Deliver(5);
  device_.Deliver(5);
  device_.Deliver(6);
  const std::string second = manager_.Enroll(NewUser("bob"));

  EXPECT_EQ(first, "1234567D");
  EXPECT_EQ(second, "1234567E");
  EXPECT_EQ(manager_.GetUser(first)->Name(), "alice");
  EXPECT_EQ(manager_.GetUser(second)->Name(), "bob");
  EXPECT_EQ(device_.opened, 4);
  EXPECT_EQ(device_.closed, 4);
}

TEST_F(SessionManagerImplTest, AsksForTheMissingBytesAfterAShortRead) {
  const int32_t value = 0x0A0B0C0D;
  std::string bytes(4, '\0');
  std::memcpy(bytes.data(), &value, 4);
  device_.DeliverBytes(bytes.substr(0, 1));
  device_.DeliverBytes(bytes.substr(1, 2));
  device_.DeliverBytes(bytes.substr(3));

  EXPECT_EQ(manager_.Enroll(NewUser("alice")), "1C3F6285");
  EXPECT_THAT(device_.asked, ElementsAre(4u, 3u, 1u));
  EXPECT_THAT(log_.TextsOf(kRandomLog, support::CapturingLog::Level::kDebug),
              ElementsAre("read 1 bytes (total 1) from /dev/urandom, want 3 more",
                          "read 2 bytes (total 3) from /dev/urandom, want 1 more"));
  EXPECT_EQ(device_.closed, 1);
}

TEST_F(SessionManagerImplTest, ReadsOnWhenASignalInterrupts) {
  device_.Fail(EINTR);
  device_.Fail(EINTR);
  EXPECT_EQ(Enroll(0, "alice"), "12345678");
  EXPECT_THAT(log_.TextsOf(kRandomLog), IsEmpty());
}

TEST_F(SessionManagerImplTest, TakesTheOtherSourceWhenTheDeviceDoesNotOpen) {
  device_.open_result = -1;
  const std::string first = manager_.Enroll(NewUser("alice"));
  const std::string second = manager_.Enroll(NewUser("alice"));

  EXPECT_THAT(log_.TextsOf(kRandomLog, support::CapturingLog::Level::kWarning),
              ElementsAre(kWarning, kWarning));
  EXPECT_THAT(first, testing::MatchesRegex("[012][0-9A-F]{7}"));
  EXPECT_NE(first, second);
  EXPECT_THAT(device_.asked, IsEmpty());
  EXPECT_EQ(device_.closed, 0);
}

TEST_F(SessionManagerImplTest, TakesTheOtherSourceWhenTheDeviceEnds) {
  device_.DeliverBytes("abc");
  device_.End();
  EXPECT_THAT(manager_.Enroll(NewUser("alice")), testing::MatchesRegex("[012][0-9A-F]{7}"));
  EXPECT_EQ(log_.TextsOf(kRandomLog).back(), kWarning);
  EXPECT_EQ(device_.closed, 1);
}

TEST_F(SessionManagerImplTest, TakesTheOtherSourceWhenReadingFails) {
  device_.Fail(EIO);
  EXPECT_THAT(manager_.Enroll(NewUser("alice")), testing::MatchesRegex("[012][0-9A-F]{7}"));
  EXPECT_THAT(log_.TextsOf(kRandomLog), ElementsAre(kWarning));
  EXPECT_EQ(device_.closed, 1);
}

TEST_F(SessionManagerImplTest, EnrollsWithAStampAndALine) {
  At(kStart + 5, 250);
  const std::string token = Enroll(0, "alice");
  EXPECT_EQ(manager_.GetUser(token)->LastAccess(), TimeStruct(kStart + 5, 250));
  EXPECT_THAT(Log(), ElementsAre("enrolling session (token = 12345678) for user alice"));
}

TEST(SessionManagerStamp, IsTakenBeforeTheLockWhenEnrollingAndUnderItWhenRefreshing) {
  WatchingClock clock;
  ScriptedDevice device;
  SessionManager::SessionManagerImpl manager(&clock, 10, device);
  clock.manager = &manager;
  device.Deliver(0);
  const std::string token =
      manager.Enroll(new User("alice", "", tevra::interfaces::ISecurityProvider::kViewers, {}));
  ASSERT_FALSE(clock.was_locked.empty());
  EXPECT_FALSE(clock.was_locked.back());
  EXPECT_TRUE(manager.Refresh(token));
  EXPECT_TRUE(clock.was_locked.back());
  clock.manager = nullptr;
}

TEST_F(SessionManagerImplTest, DoesNotTakeTheAnonymousAccount) {
  const User nobody("nobody", "", tevra::interfaces::ISecurityProvider::kNobody, {});
  User record(nobody);
  EXPECT_EQ(manager_.Enroll(&record), "NO_TOKEN");
  EXPECT_EQ(manager_.GetUser("NO_TOKEN"), nullptr);
  EXPECT_EQ(record.LastAccess(), TimeStruct());
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_EQ(device_.opened, 0);
}

TEST_F(SessionManagerImplTest, TakesAnAccountThatOnlyLooksAnonymous) {
  EXPECT_EQ(Enroll(0, "Nobody"), "12345678");
  EXPECT_EQ(Enroll(1, std::string("nobody\0x", 8)), "12345679");
  EXPECT_EQ(Enroll(2, ""), "1234567A");
}

TEST_F(SessionManagerImplTest, GivesNoTokenForNoRecord) {
  EXPECT_EQ(manager_.Enroll(nullptr), "");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(SessionManagerImplTest, PrunesBeforeItRefusesToEnroll) {
  Enroll(0, "alice");
  At(kStart + 1801);
  EXPECT_EQ(manager_.Enroll(nullptr), "");
  EXPECT_EQ(alive_, 0);
}

TEST_F(SessionManagerImplTest, KeepsASessionThatIsExactlyAtItsExpiry) {
  const std::string token = Enroll(0, "alice");
  At(kStart + 1800);
  EXPECT_NE(manager_.GetUser(token), nullptr);
  At(kStart + 1800, 1);
  EXPECT_EQ(manager_.GetUser(token), nullptr);
  EXPECT_EQ(alive_, 0);
  EXPECT_EQ(Log().back(), "expiring session (token = 12345678) for user alice");
}

TEST_F(SessionManagerImplTest, CountsTheIdleTimeFromTheRefresh) {
  const std::string token = Enroll(0, "alice");
  At(kStart + 1800, 0);
  EXPECT_TRUE(manager_.Refresh(token));
  EXPECT_EQ(manager_.GetUser(token)->LastAccess(), TimeStruct(kStart + 1800, 0));
  At(kStart + 3600);
  EXPECT_TRUE(manager_.Refresh(token));
  At(kStart + 5400, 1);
  EXPECT_FALSE(manager_.Refresh(token));
}

TEST_F(SessionManagerImplTest, ExpiresInTheOrderOfTheTokens) {
  Enroll(300, "carol");
  At(kStart + 1);
  Enroll(100, "alice");
  At(kStart + 2);
  Enroll(200, "bob");
  At(kStart + 3);
  Enroll(50, "dave");
  At(kStart + 1802, 1);
  EXPECT_FALSE(manager_.Cancel("nothing"));

  const std::vector<std::string> lines = Log();
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 4, lines.end()),
              ElementsAre("expiring session (token = 123456DC) for user alice",
                          "expiring session (token = 12345740) for user bob",
                          "expiring session (token = 123457A4) for user carol"));
  EXPECT_NE(manager_.GetUser("123456AA"), nullptr);
  EXPECT_EQ(alive_, 1);
}

TEST_F(SessionManagerImplTest, KeepsSessionsOfTheFutureWhenTheClockStepsBack) {
  const std::string late = Enroll(1, "alice");
  At(kStart - 100'000);
  const std::string early = Enroll(2, "bob");
  EXPECT_NE(manager_.GetUser(late), nullptr);

  At(kStart - 100'000 + 1801);
  EXPECT_NE(manager_.GetUser(late), nullptr);
  EXPECT_EQ(manager_.GetUser(early), nullptr);
}

TEST_F(SessionManagerImplTest, CountsTheIdleTimeFromARefreshByAClockThatSteppedBack) {
  const std::string refreshed = Enroll(3, "alice");
  const std::string idle = Enroll(1, "bob");
  const std::string last = Enroll(2, "carol");
  At(kStart - 1000);
  EXPECT_TRUE(manager_.Refresh(last));
  EXPECT_TRUE(manager_.Refresh(refreshed));

  At(kStart + 800);
  EXPECT_NE(manager_.GetUser(refreshed), nullptr);
  At(kStart + 800, 1);
  EXPECT_NE(manager_.GetUser(idle), nullptr);
  const std::vector<std::string> lines = Log();
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 3, lines.end()),
              ElementsAre("expiring session (token = 1234567A) for user carol",
                          "expiring session (token = 1234567B) for user alice"));
}

TEST_F(SessionManagerImplTest, AppliesANewTimeoutToLivingSessions) {
  const std::string token = Enroll(0, "alice");
  At(kStart + 10);
  manager_.SetTimeout(9);
  EXPECT_EQ(alive_, 1) << "a new time-out ends nothing by itself";
  EXPECT_EQ(manager_.GetUser(token), nullptr);

  const std::string next = Enroll(0, "alice");
  manager_.SetTimeout(0);
  EXPECT_NE(manager_.GetUser(next), nullptr);
  At(kStart + 10, 1);
  EXPECT_EQ(manager_.GetUser(next), nullptr);

  const std::string last = Enroll(0, "alice");
  manager_.SetTimeout(-1);
  EXPECT_EQ(manager_.GetUser(last), nullptr);
  manager_.SetTimeout(INT_MAX);
  const std::string longest = Enroll(0, "alice");
  At(kStart + 10 + INT_MAX);
  EXPECT_NE(manager_.GetUser(longest), nullptr);
}

TEST_F(SessionManagerImplTest, CancelsOneSession) {
  const std::string first = Enroll(1, "alice");
  const std::string second = Enroll(2, "alice");
  EXPECT_TRUE(manager_.Cancel(first));
  EXPECT_EQ(Log().back(), "canceling session enrollment (token = 12345679) for user alice");
  EXPECT_FALSE(manager_.Cancel(first));
  EXPECT_EQ(manager_.GetUser(first), nullptr);
  EXPECT_NE(manager_.GetUser(second), nullptr);
  EXPECT_EQ(alive_, 1);
}

TEST_F(SessionManagerImplTest, AnswersUnknownTokensWithoutALine) {
  for (const std::string& token :
       {std::string(), std::string("NO_TOKEN"), std::string("_EXPIRED"), std::string(8, '\0'),
        std::string(1 << 20, 'A'), std::string("12345678\0", 9)}) {
    EXPECT_FALSE(manager_.Refresh(token));
    EXPECT_FALSE(manager_.Cancel(token));
    EXPECT_EQ(manager_.GetUser(token), nullptr);
  }
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(SessionManagerImplTest, TellsTokensApartByCase) {
  Enroll(5, "alice");
  EXPECT_NE(manager_.GetUser("1234567D"), nullptr);
  EXPECT_EQ(manager_.GetUser("1234567d"), nullptr);
}

TEST_F(SessionManagerImplTest, InvalidatesTheSessionsOfOneNameInTokenOrder) {
  Enroll(3, "alice");
  Enroll(1, "Alice");
  Enroll(2, "alice");
  manager_.Invalidate("alice");
  const std::vector<std::string> lines = Log();
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 3, lines.end()),
              ElementsAre("invalidating session (token = 1234567A) for user alice",
                          "invalidating session (token = 1234567B) for user alice"));
  EXPECT_NE(manager_.GetUser("12345679"), nullptr);
  EXPECT_EQ(alive_, 1);
  manager_.Invalidate("alice");
  EXPECT_EQ(Log().size(), lines.size());
}

TEST_F(SessionManagerImplTest, InvalidatesEverybodyInTokenOrder) {
  Enroll(3, "alice");
  Enroll(1, "bob");
  Enroll(2, "carol");
  manager_.Invalidate("*");
  const std::vector<std::string> lines = Log();
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 3, lines.end()),
              ElementsAre("invalidating session (token = 12345679) for user bob",
                          "invalidating session (token = 1234567A) for user carol",
                          "invalidating session (token = 1234567B) for user alice"));
  EXPECT_EQ(alive_, 0);
}

TEST_F(SessionManagerImplTest, TellsTheTokensOfSessionsOnceTheyHaveEnded) {
  std::vector<std::string> ended;
  const std::string first = Enroll(1, "alice");
  const std::string second = Enroll(2, "bob");
  const std::string third = Enroll(3, "bob");
  manager_.TellEnds([&](const std::string& token) { ended.push_back(token); });
  manager_.Cancel("nothing");
  manager_.Invalidate("carol");
  EXPECT_THAT(ended, IsEmpty());
  EXPECT_TRUE(manager_.Cancel(first));
  EXPECT_THAT(ended, ElementsAre(first));
  manager_.Invalidate("bob");
  EXPECT_THAT(ended, ElementsAre(first, second, third));
}

TEST_F(SessionManagerImplTest, DoesNotTellOfSessionsThatExpire) {
  std::vector<std::string> ended;
  manager_.TellEnds([&](const std::string& token) { ended.push_back(token); });
  const std::string token = Enroll(1, "alice");
  At(kStart + 5000);
  EXPECT_FALSE(manager_.Refresh(token));
  EXPECT_THAT(ended, IsEmpty());
}

TEST_F(SessionManagerImplTest, InvalidatesExpiredSessionsWithoutPruningThem) {
  Enroll(0, "alice");
  Enroll(1, "bob");
  At(kStart + 5000);
  manager_.Invalidate("alice");
  EXPECT_EQ(Log().back(), "invalidating session (token = 12345678) for user alice");
  EXPECT_EQ(alive_, 1) << "the other session has expired too but is not looked at";
}

TEST_F(SessionManagerImplTest, KeepsAnEntryUnderNoTokenThroughPruneAndInvalidate) {
  SessionManagerPeer::Add(manager_, "NO_TOKEN", NewUser("alice"));
  Enroll(0, "alice");
  At(kStart + 5000);
  EXPECT_NE(manager_.GetUser("NO_TOKEN"), nullptr);
  EXPECT_EQ(manager_.GetUser("12345678"), nullptr);
  manager_.Invalidate("alice");
  manager_.Invalidate("*");
  EXPECT_NE(manager_.GetUser("NO_TOKEN"), nullptr);
  EXPECT_TRUE(manager_.Cancel("NO_TOKEN"));
  EXPECT_EQ(alive_, 0);
}

TEST_F(SessionManagerImplTest, FindsTheReusableSessionWithTheSmallestToken) {
  Enroll(1, "alice", false);
  Enroll(2, "alice", true, "other");
  Enroll(3, "bob", true);
  Enroll(5, "alice", true);
  Enroll(4, "alice", true);
  std::string token = "before";
  EXPECT_TRUE(manager_.FindReusable("alice", "digest", token));
  EXPECT_EQ(token, "1234567C");
  EXPECT_EQ(Log().back(), "found reusable session (token = 1234567C) for user alice");
}

TEST_F(SessionManagerImplTest, LeavesTheTokenAloneWhenNothingCanBeReused) {
  Enroll(1, "alice", false);
  Enroll(2, "bob", true);
  std::string token = "before";
  EXPECT_FALSE(manager_.FindReusable("alice", "digest", token));
  EXPECT_FALSE(manager_.FindReusable("bob", "Digest", token));
  EXPECT_FALSE(manager_.FindReusable("Bob", "digest", token));
  EXPECT_FALSE(manager_.FindReusable("", "", token));
  EXPECT_EQ(token, "before");
  EXPECT_EQ(Log().size(), 2u);
}

TEST_F(SessionManagerImplTest, DoesNotExtendASessionByFindingIt) {
  Enroll(0, "alice", true);
  std::string token;
  At(kStart + 1800);
  EXPECT_TRUE(manager_.FindReusable("alice", "digest", token));
  At(kStart + 1800, 1);
  EXPECT_FALSE(manager_.FindReusable("alice", "digest", token));
}

TEST_F(SessionManagerImplTest, HonoursAReusableFlagThatChangesLater) {
  const std::string enrolled = Enroll(0, "alice", false);
  std::string token;
  EXPECT_FALSE(manager_.FindReusable("alice", "digest", token));
  manager_.GetUser(enrolled)->SetReusable(true);
  EXPECT_TRUE(manager_.FindReusable("alice", "digest", token));
}

TEST_F(SessionManagerImplTest, DestroysEveryRecordAtItsEnd) {
  int alive = 0;
  {
    SessionManager::SessionManagerImpl manager(&clock_, 10, device_);
    for (int i = 0; i < 100; ++i) {
      device_.Deliver(i);
      manager.Enroll(new CountedUser("user" + std::to_string(i % 7), "", &alive));
    }
    EXPECT_EQ(alive, 100);
  }
  EXPECT_EQ(alive, 0);
}

// The sessions as one map that is walked on every call; slow, and plainly right.
class WalkedSessions {
 public:
  WalkedSessions(ExplicitTimeSource* clock, std::vector<std::string>* lines)
      : clock_(*clock), lines_(*lines) {}

  void Enroll(const std::string& token, const std::string& name, bool reusable) {
    Line("enrolling session", token, name);
    sessions_[token] = {name, reusable, Now()};
  }
  bool FindReusable(const std::string& name, std::string& token) {
    Prune();
    for (const auto& [key, session] : sessions_) {
      if (!session.reusable || session.name != name) continue;
      token = key;
      Line("found reusable session", key, name);
      return true;
    }
    return false;
  }
  bool Refresh(const std::string& token) {
    Prune();
    const auto found = sessions_.find(token);
    if (found == sessions_.end()) return false;
    found->second.last_access = Now();
    return true;
  }
  bool Cancel(const std::string& token) {
    Prune();
    const auto found = sessions_.find(token);
    if (found == sessions_.end()) return false;
    Line("canceling session enrollment", token, found->second.name);
    sessions_.erase(found);
    return true;
  }
  void Invalidate(const std::string& name) {
    for (auto it = sessions_.begin(); it != sessions_.end();) {
      if (name != "*" && name != it->second.name) {
        ++it;
        continue;
      }
      Line("invalidating session", it->first, it->second.name);
      it = sessions_.erase(it);
    }
  }
  void Prune() {
    for (auto it = sessions_.begin(); it != sessions_.end();) {
      TimeStruct expiry = it->second.last_access;
      expiry += int64_t{timeout} * 1'000'000;
      if (Now() <= expiry) {
        ++it;
        continue;
      }
      Line("expiring session", it->first, it->second.name);
      it = sessions_.erase(it);
    }
  }
  bool Knows(const std::string& token) const { return sessions_.contains(token); }
  std::size_t Size() const { return sessions_.size(); }

  int timeout = 10;

 private:
  struct Session {
    std::string name;
    bool reusable;
    TimeStruct last_access;
  };

  TimeStruct Now() const {
    TimeStruct now;
    clock_.GetTime(now);
    return now;
  }
  void Line(const std::string& what, const std::string& token, const std::string& name) {
    lines_.push_back(what + " (token = " + token + ") for user " + name);
  }

  ExplicitTimeSource& clock_;
  std::vector<std::string>& lines_;
  std::map<std::string, Session> sessions_;
};

// Both answer the same and log the same through a random history with a clock that jumps.
class SessionManagerImplHistory : public testing::TestWithParam<unsigned> {};

TEST_P(SessionManagerImplHistory, IsThatOfAWalkOverAllSessions) {
  support::CapturingLog log;
  ExplicitTimeSource clock;
  ScriptedDevice device;
  SessionManager::SessionManagerImpl manager(&clock, 10, device);
  std::vector<std::string> lines;
  WalkedSessions walked(&clock, &lines);
  std::mt19937 random(GetParam());
  const auto below = [&random](unsigned limit) { return static_cast<int32_t>(random() % limit); };
  const auto token_of = [](int32_t draw) {
    char text[9];
    std::snprintf(text, sizeof(text), "%08X", static_cast<unsigned>(305419896 + draw));
    return std::string(text);
  };
  const std::vector<std::string> names = {"alice", "bob", "Alice", "carol"};

  int64_t micros = 0;
  std::size_t written = 0;
  for (int step = 0; step < 3000; ++step) {
    micros += below(20) == 0 ? -below(30'000'000) : below(1'500'000);
    TimeStruct now(100'000, 0);
    now += micros;
    clock.SetTime(now);
    const std::string& name = names[static_cast<std::size_t>(below(4))];
    const std::string token = token_of(below(40));
    switch (below(8)) {
      case 0:
      case 1:
      case 2: {
        walked.Prune();
        int32_t draw = below(40);
        device.Deliver(draw);
        while (walked.Knows(token_of(draw))) {
          draw = below(80);
          device.Deliver(draw);
        }
        const bool reusable = below(2) == 0;
        auto* const user = new User(name, "", tevra::interfaces::ISecurityProvider::kViewers, {});
        user->SetReusable(reusable);
        walked.Enroll(token_of(draw), name, reusable);
        ASSERT_EQ(manager.Enroll(user), token_of(draw));
        break;
      }
      case 3:
      case 4:
        ASSERT_EQ(manager.Refresh(token), walked.Refresh(token));
        break;
      case 5: {
        std::string mine = "none";
        std::string theirs = "none";
        ASSERT_EQ(manager.FindReusable(name, "", mine), walked.FindReusable(name, theirs));
        ASSERT_EQ(mine, theirs);
        break;
      }
      case 6:
        ASSERT_EQ(manager.Cancel(token), walked.Cancel(token));
        break;
      default:
        if (below(10) == 0) {
          const std::string whose = below(3) == 0 ? "*" : name;
          manager.Invalidate(whose);
          walked.Invalidate(whose);
        } else if (below(10) == 0) {
          walked.timeout = below(20) - 1;
          manager.SetTimeout(walked.timeout);
        }
    }
    ASSERT_EQ(log.TextsOf(kManagerLog), lines) << "at step " << step;
    written += lines.size();
    lines.clear();
    log.Clear();
  }
  EXPECT_GT(written, 1000u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, SessionManagerImplHistory, testing::Values(1u, 2u, 3u, 4u));

}  // namespace
}  // namespace vigila::server

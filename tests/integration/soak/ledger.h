#ifndef TESTS_INTEGRATION_SOAK_LEDGER_H_
#define TESTS_INTEGRATION_SOAK_LEDGER_H_

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace soak {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

enum class Condition {
  kDead,       // ordered to die, and no other is ready
  kDisturbed,  // alive, but calls may fail
  kCalm,       // every call must work
};

// A moment in the daemon's lives, which are counted from 1, as are the calms.
struct Moment {
  Clock::time_point at;
  Condition condition = Condition::kDead;
  Clock::time_point since;  // of the condition
  int life = 0;
  int calm = 0;

  // Whether the calm of this moment still lasted at the later one.
  bool IsCalmUntil(const Moment& later) const {
    return condition == Condition::kCalm && later.condition == Condition::kCalm &&
           calm == later.calm;
  }
};

// How the daemon and its client are. One thread disturbs them, any thread asks.
class Lives {
 public:
  void Die() { Change(Condition::kDead); }
  void BeReady() { Change(Condition::kDisturbed, 1); }
  void Disturb() { Change(Condition::kDisturbed); }
  void CalmDown() { Change(Condition::kCalm, 0, 1); }
  Moment Now() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Moment now = last_change_;
    now.at = Clock::now();
    return now;
  }

 private:
  void Change(Condition condition, int lives = 0, int calms = 0) {
    const std::lock_guard<std::mutex> lock(mutex_);
    last_change_.condition = condition;
    last_change_.since = Clock::now();
    last_change_.life += lives;
    last_change_.calm += calms;
  }

  mutable std::mutex mutex_;
  Moment last_change_;
};

// What was asked and how it was answered. Any thread.
class Ledger {
 public:
  static constexpr size_t kOperations = 12;  // of the client
  // From this long after a disturbance on, every operation must work.
  static constexpr milliseconds kGrace{200};

  struct Operation {
    long asked = 0;
    long owed = 0;    // asked for when there had been calm for the grace, answered in the same calm
    long failed = 0;  // of these, not answered rightly
    Clock::duration last_failure{};  // asked for so long after a disturbance, not answered rightly
    std::set<int> worked_in;         // calms
  };

  static bool IsOwed(const Moment& before, const Moment& after) {
    return before.IsCalmUntil(after) && before.at - before.since >= kGrace;
  }
  void Note(const std::string& name, const Moment& before, const Moment& after, bool right) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Operation& operation = operations_[name];
    ++operation.asked;
    if (!before.IsCalmUntil(after)) return;
    if (right) {
      operation.worked_in.insert(before.calm);
    } else {
      operation.last_failure = std::max(operation.last_failure, before.at - before.since);
    }
    if (!IsOwed(before, after)) return;
    ++operation.owed;
    const auto age = std::chrono::duration_cast<milliseconds>(before.at - before.since);
    const auto took = std::chrono::duration_cast<milliseconds>(after.at - before.at);
    if (right) return;
    ++operation.failed;
    failures_.push_back(name + " in calm " + std::to_string(before.calm) + ", asked after " +
                        std::to_string(age.count()) + " ms, answered after another " +
                        std::to_string(took.count()) + " ms");
  }
  // Whether every operation has worked in this calm.
  bool AllWorkedIn(int calm) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return operations_.size() == kOperations &&
           std::all_of(operations_.begin(), operations_.end(),
                       [calm](const auto& entry) { return entry.second.worked_in.count(calm); });
  }
  void NoteWrongGrant(const std::string& what) {
    const std::lock_guard<std::mutex> lock(mutex_);
    wrong_grants_.push_back(what);
  }
  void NoteRevocation(const std::string& how, Condition condition) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++revocations_[how];
    revocations_amid_disturbance_ += condition == Condition::kDisturbed ? 1 : 0;
  }
  // A grant of a daemon that had been told to die at `ended`, given to a question asked at `at`.
  void NoteStaleGrant(Clock::time_point ended, Clock::time_point at) {
    const std::lock_guard<std::mutex> lock(mutex_);
    longest_stale_ = std::max(longest_stale_, at - ended);
  }

  // To be read when no one writes any more.
  const std::map<std::string, Operation>& Operations() const { return operations_; }
  const std::vector<std::string>& Failures() const { return failures_; }
  const std::vector<std::string>& WrongGrants() const { return wrong_grants_; }
  const std::map<std::string, long>& Revocations() const { return revocations_; }
  long RevocationsAmidDisturbance() const { return revocations_amid_disturbance_; }
  Clock::duration LongestStale() const { return longest_stale_; }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Operation> operations_;
  std::vector<std::string> failures_;
  std::vector<std::string> wrong_grants_;
  std::map<std::string, long> revocations_;
  long revocations_amid_disturbance_ = 0;
  Clock::duration longest_stale_{};
};

}  // namespace soak

#endif  // TESTS_INTEGRATION_SOAK_LEDGER_H_

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

// A moment in the daemon's lives, which are counted from 1.
struct Moment {
  Clock::time_point at;
  int life = 0;
  bool is_up = false;
  Clock::time_point since;  // READY=1 of the life; while down, the order to die
};

// When the daemon lives and when it is dead. One thread kills and starts it, any thread asks.
class Lives {
 public:
  void Begin() { Change(true); }
  void End() { Change(false); }
  Moment Now() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Moment now = last_change_;
    now.at = Clock::now();
    return now;
  }

 private:
  void Change(bool is_up) {
    const std::lock_guard<std::mutex> lock(mutex_);
    last_change_.life += is_up ? 1 : 0;
    last_change_.is_up = is_up;
    last_change_.since = Clock::now();
  }

  mutable std::mutex mutex_;
  Moment last_change_;
};

// What was asked and how it was answered. Any thread.
class Ledger {
 public:
  // From this long after READY=1 on, every operation must work.
  static constexpr milliseconds kGrace{200};

  struct Operation {
    long asked = 0;
    long owed = 0;    // asked for when the daemon had been up for the grace and stayed up
    long failed = 0;  // of these, not answered rightly
    Clock::duration last_failure{};  // asked for so long after READY=1, and not answered rightly
    std::set<int> worked_in;         // lives
  };

  void Note(const std::string& name, const Moment& before, const Moment& after, bool right) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Operation& operation = operations_[name];
    ++operation.asked;
    const bool in_one_life = before.is_up && after.is_up && before.life == after.life;
    if (!in_one_life) return;
    const Clock::duration age = before.at - before.since;
    if (right) {
      operation.worked_in.insert(before.life);
    } else {
      operation.last_failure = std::max(operation.last_failure, age);
    }
    if (age < kGrace) return;
    ++operation.owed;
    if (!right) ++operation.failed;
  }
  void NoteWrongGrant(const std::string& what) {
    const std::lock_guard<std::mutex> lock(mutex_);
    wrong_grants_.push_back(what);
  }
  // A grant that was right until `ended` and was still given by a question asked at `at`.
  void NoteStaleGrant(const std::string& why, Clock::time_point ended, Clock::time_point at) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Clock::duration& longest = longest_stale_[why];
    longest = std::max(longest, at - ended);
  }

  // To be read when no one writes any more.
  const std::map<std::string, Operation>& Operations() const { return operations_; }
  const std::vector<std::string>& WrongGrants() const { return wrong_grants_; }
  const std::map<std::string, Clock::duration>& LongestStale() const { return longest_stale_; }

 private:
  std::mutex mutex_;
  std::map<std::string, Operation> operations_;
  std::vector<std::string> wrong_grants_;
  std::map<std::string, Clock::duration> longest_stale_;
};

}  // namespace soak

#endif  // TESTS_INTEGRATION_SOAK_LEDGER_H_

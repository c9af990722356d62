#ifndef BENCHMARKS_SUPPORT_TEAM_H_
#define BENCHMARKS_SUPPORT_TEAM_H_

#include <barrier>
#include <chrono>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "benchmarks/support/pairs.h"

namespace benchmarks {

// Threads that do the same at the same time, as often as they are told; the calling thread is the
// first of them.
class Team {
 public:
  // What the thread of that index does `count` times.
  using Work = std::function<void(int index, int count)>;

  Team(int size, Work work) : size_(size), work_(std::move(work)), meeting_(size) {
    for (int i = 1; i < size; ++i) threads_.emplace_back([this, i] { Serve(i); });
  }
  ~Team() {
    count_ = 0;
    meeting_.arrive_and_wait();
  }
  Team(const Team&) = delete;
  Team& operator=(const Team&) = delete;

  // Nanoseconds for one of `count` in all, from the start of the first thread to the end of the
  // last.
  double Run(int count) {
    count_ = (count + size_ - 1) / size_;
    const int done = count_ * size_;
    meeting_.arrive_and_wait();
    const auto start = Clock::now();
    work_(0, count_);
    meeting_.arrive_and_wait();
    return Nanoseconds(Clock::now() - start) / done;
  }

 private:
  void Serve(int index) {
    while (true) {
      meeting_.arrive_and_wait();
      if (count_ == 0) return;
      work_(index, count_);
      meeting_.arrive_and_wait();
    }
  }

  const int size_;
  const Work work_;
  std::barrier<> meeting_;
  int count_ = 0;  // written between two meetings
  std::vector<std::jthread> threads_;
};

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_TEAM_H_

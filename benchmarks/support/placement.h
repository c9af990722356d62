#ifndef BENCHMARKS_SUPPORT_PLACEMENT_H_
#define BENCHMARKS_SUPPORT_PLACEMENT_H_

#include <sched.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace benchmarks {

// Where the threads of a measurement run. A wake-up on the same core costs a switch, one on another
// core an interrupt and perhaps a sleep's end: the two are measured apart.
enum class Placement {
  kAnyCore,   // as the kernel likes
  kOneCore,   // the calling thread and the servers on one core
  kTwoCores,  // the calling thread on one core, the servers on another
};

// The cores that this thread may use.
inline std::vector<int> AllowedCores() {
  cpu_set_t set;
  std::vector<int> cores;
  if (sched_getaffinity(0, sizeof(set), &set) != 0) return cores;
  for (int core = 0; core < CPU_SETSIZE; ++core) {
    if (CPU_ISSET(core, &set)) cores.push_back(core);
  }
  return cores;
}

inline bool CanPlace(Placement placement) {
  return placement == Placement::kAnyCore ||
         AllowedCores().size() >= (placement == Placement::kOneCore ? 1 : 2);
}

inline const char* Name(Placement placement) {
  switch (placement) {
    case Placement::kOneCore:
      return "one core";
    case Placement::kTwoCores:
      return "two cores";
    default:
      return "any core";
  }
}

// Puts the calling thread and all threads of the servers in their places and, at the end, back.
class Placed {
 public:
  Placed(Placement placement, std::vector<pid_t> servers) : servers_(std::move(servers)) {
    sched_getaffinity(0, sizeof(before_), &before_);
    const std::vector<int> cores = AllowedCores();
    if (!CanPlace(placement)) throw std::runtime_error("there are not enough cores");
    if (placement == Placement::kAnyCore) return;
    Put(0, Only(cores[0]));
    PutServers(Only(placement == Placement::kOneCore ? cores[0] : cores[1]));
  }
  ~Placed() {
    sched_setaffinity(0, sizeof(before_), &before_);
    for (const pid_t thread : ServerThreads()) {
      sched_setaffinity(thread, sizeof(before_), &before_);
    }
  }
  Placed(const Placed&) = delete;
  Placed& operator=(const Placed&) = delete;

 private:
  static cpu_set_t Only(int core) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core, &set);
    return set;
  }
  // A thread that has ended in the meantime needs no place.
  static void Put(pid_t thread, const cpu_set_t& set) {
    if (sched_setaffinity(thread, sizeof(set), &set) != 0 && errno != ESRCH) {
      throw std::runtime_error("threads cannot be placed");
    }
  }
  void PutServers(const cpu_set_t& set) const {
    for (const pid_t thread : ServerThreads()) Put(thread, set);
  }
  std::vector<pid_t> ServerThreads() const {
    std::vector<pid_t> threads;
    for (const pid_t server : servers_) {
      for (const auto& task :
           std::filesystem::directory_iterator("/proc/" + std::to_string(server) + "/task")) {
        threads.push_back(std::stoi(task.path().filename().string()));
      }
    }
    return threads;
  }

  const std::vector<pid_t> servers_;
  cpu_set_t before_;
};

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_PLACEMENT_H_

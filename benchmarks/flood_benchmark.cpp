// How long an honest authorize waits while twenty connections of other processes send wrong
// passwords, beside one logon of a quiet device. The names of the wrong passwords are unknown ones,
// which cost the service as much and are never locked.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/support/pairs.h"
#include "krand/base64/base64.h"
#include "support/daemon_process.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"

namespace {

using benchmarks::Clock;
using benchmarks::Nanoseconds;
using krand::lib::Base64;
using tevra::interfaces::ISecurityProvider;

// A connection to the service, as another process would have it.
struct Caller {
  tevra::msgbus::MsgBus bus;
  const std::unique_ptr<ISecurityProvider> proxy{ISecurityProvider::CreateClient(&bus)};
};

// Processes that send wrong passwords while they are told to. Start it before the process has
// threads, and once the platform's configuration is loaded.
class Flood {
 public:
  static constexpr int kConnections = 20;

  Flood() {
    void* shared =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) throw std::runtime_error("mmap");
    shared_ = new (shared) Shared;
    for (int i = 0; i < kConnections; ++i) {
      pids_.push_back(fork());
      if (pids_.back() != 0) continue;
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      Send(i);
      _exit(1);
    }
  }
  ~Flood() {
    for (const pid_t pid : pids_) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    munmap(shared_, sizeof(Shared));
  }
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;

  // Returns when every connection has had an answer.
  void Begin() {
    shared_->refused = 0;
    shared_->going = true;
    Await([this] { return shared_->refused >= 2 * kConnections; });
  }
  // Returns when no connection waits for an answer.
  void End() {
    shared_->going = false;
    Await([this] { return shared_->waiting == 0; });
  }

 private:
  struct Shared {
    std::atomic<bool> going{false};
    std::atomic<int> waiting{0};
    std::atomic<int> refused{0};
    std::atomic<int> failed{0};  // calls that had another answer or none
  };

  template <typename Condition>
  void Await(Condition condition) const {
    const auto until = Clock::now() + std::chrono::seconds(60);
    while (!condition()) {
      if (shared_->failed > 0 || Clock::now() > until) {
        throw std::runtime_error("wrong passwords are not answered");
      }
      usleep(1000);
    }
  }

  static bool IsRefused(const Caller& caller, const std::string& name,
                        const std::string& password) {
    try {
      return caller.proxy->Authenticate(false, name, password) == "NO_TOKEN";
    } catch (const std::exception&) {
      return false;
    }
  }
  void Send(int number) const {
    const Caller caller;
    const std::string name = Base64::Encode("ghost" + std::to_string(number));
    const std::string password = Base64::Encode("wrong!");
    while (true) {
      ++shared_->waiting;
      if (shared_->going)
        ++(IsRefused(caller, name, password) ? shared_->refused : shared_->failed);
      --shared_->waiting;
      if (!shared_->going) usleep(1000);
    }
  }

  Shared* shared_ = nullptr;
  std::vector<pid_t> pids_;
};

std::unique_ptr<support::DaemonProcess> device;
std::unique_ptr<Flood> flood;
std::unique_ptr<Caller> honest;

std::string LogOn() {
  const std::string token = honest->proxy->Authenticate(false, "YWxpY2U=", "c2VjcmV0");
  if (token.size() != 8 || token == "NO_TOKEN") throw std::runtime_error("refused");
  return token;
}

// The time below which all but a hundredth of the calls stay.
double WaitsUnderFlood(int count) {
  const std::string token = LogOn();
  std::vector<double> waits;
  flood->Begin();
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    if (!honest->proxy->Authorize(token, "/jpeg/1")) throw std::runtime_error("refused");
    waits.push_back(Nanoseconds(Clock::now() - start));
  }
  flood->End();
  honest->proxy->Logout(token);
  return benchmarks::Quantile(waits, 0.99);
}

double OneLogon(int) {
  std::vector<double> costs;
  for (int i = 0; i < 10; ++i) {
    const auto start = Clock::now();
    const std::string token = LogOn();
    costs.push_back(Nanoseconds(Clock::now() - start));
    honest->proxy->Logout(token);
  }
  return benchmarks::Median(costs);
}

}  // namespace

int main(int argc, char** argv) {
  device = std::make_unique<support::DaemonProcess>();
  if (device->LaunchAndAwaitReady() != support::DaemonProcess::Start::kReady) {
    fprintf(stderr, "the daemon did not start: %s\n", device->Log().c_str());
    return 1;
  }
  tevra::core::PlatformConfig::LoadFrom(device->ConfigFile());
  flood = std::make_unique<Flood>();
  honest = std::make_unique<Caller>();
  honest->proxy->AddUsers(
      "{\"Users\":[{\"Name\":\"admin\",\"Password\":\"adminpass\",\"Group\":1},"
      "{\"Name\":\"alice\",\"Password\":\"secret\",\"Group\":8}]}");
  benchmarks::RegisterPair(
      {.name = "authorize among 20, p99",
       .floor = "one logon, while 20 connections send wrong passwords",
       .budget = 2.0,
       .placement = benchmarks::Placement::kAnyCore,
       .count = 200,
       .pairs = 5},
      [] { return std::pair<benchmarks::Batch, benchmarks::Batch>(WaitsUnderFlood, OneLogon); });
  const int status = benchmarks::RunAll(argc, argv);
  honest.reset();
  flood.reset();
  device.reset();
  return status;
}

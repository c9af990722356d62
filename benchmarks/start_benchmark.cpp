// From the start of the daemon's process, over a store of 1,024 accounts, to its READY=1 and to the
// first answer that needs the accounts; and its resident memory then. The floor is the same program
// started and ended with nothing to do but load its libraries.
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/support/pairs.h"
#include "support/daemon_process.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"

namespace {

using benchmarks::Clock;
using support::DaemonProcess;
using tevra::interfaces::ISecurityProvider;

std::unique_ptr<DaemonProcess> device;

// "nobody" is the 1,024th.
std::string ManyUsers() {
  std::string json = "{\"Users\":[{\"Name\":\"admin\",\"Password\":\"adminpass\",\"Group\":1}";
  for (int i = 1; i < 1023; ++i) {
    json += ",{\"Name\":\"user" + std::to_string(i) + "\",\"Password\":\"password" +
            std::to_string(i) + "\",\"Group\":8}";
  }
  return json + "]}";
}

// Calls the running daemon over a bus of its own.
template <typename Call>
void WithProxy(Call call) {
  tevra::core::PlatformConfig::LoadFrom(device->ConfigFile());
  tevra::msgbus::MsgBus bus;
  const std::unique_ptr<ISecurityProvider> proxy(ISecurityProvider::CreateClient(&bus));
  call(*proxy);
}

// A field of the process's status in MiB: "VmRSS:" all that is resident, "RssAnon:" its own part.
double StatusMiB(pid_t pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string word;
  while (status >> word) {
    double kib = 0;
    if (word == field && status >> kib) return kib / 1024;
  }
  return 0;
}

// What the starts of one run have shown, beside their time.
struct Seen {
  std::vector<double> ready_ms, resident_mib, own_mib, loaded_mib, first_answer_ms;
};
Seen seen;

double Start(int) {
  const auto start = Clock::now();
  if (device->LaunchAndAwaitReady() != DaemonProcess::Start::kReady) {
    throw std::runtime_error("not ready");
  }
  const double cost = benchmarks::Nanoseconds(Clock::now() - start);
  const pid_t pid = device->Running().Pid();
  seen.ready_ms.push_back(cost / 1e6);
  seen.resident_mib.push_back(StatusMiB(pid, "VmRSS:"));
  seen.own_mib.push_back(StatusMiB(pid, "RssAnon:"));
  WithProxy([](ISecurityProvider& proxy) {
    const auto called = Clock::now();
    if (proxy.GetUsers().size() < 1024 * 20) throw std::runtime_error("accounts missing");
    seen.first_answer_ms.push_back(benchmarks::Nanoseconds(Clock::now() - called) / 1e6);
  });
  seen.loaded_mib.push_back(StatusMiB(pid, "VmRSS:"));
  device->Stop();
  return cost;
}

void StartTheProgram() {
  if (support::RunProgram({VIGILAD_PATH, "--version"}).exit_code != 0) {
    throw std::runtime_error("--version failed");
  }
}

// Behind the row whose starts they are of.
void RegisterSeen(const std::string& name, const std::string& unit, std::optional<double> budget,
                  const std::vector<double>& values) {
  benchmarks::RegisterFigure(name, unit, budget, [&values] {
    if (values.empty()) throw std::runtime_error("nothing was started");
    return benchmarks::Median(values);
  });
}

}  // namespace

int main(int argc, char** argv) {
  device = std::make_unique<DaemonProcess>();
  int code = -1;
  if (device->LaunchAndAwaitReady() == DaemonProcess::Start::kReady) {
    WithProxy([&](ISecurityProvider& proxy) { code = proxy.AddUsers(ManyUsers()); });
    device->Stop();
  }
  if (code != 0) {
    fprintf(stderr, "the accounts could not be made: %d\n%s", code, device->Log().c_str());
    return 1;
  }
  benchmarks::RegisterPair({.name = "start, 1,024 accounts, to READY=1",
                            .floor = "the program's own start",
                            .placement = benchmarks::Placement::kAnyCore,
                            .count = 1,
                            .pairs = 15},
                           [] {
                             return std::pair<benchmarks::Batch, benchmarks::Batch>(
                                 Start, benchmarks::Timed(StartTheProgram));
                           });
  RegisterSeen("start with 1,024 accounts", "ms", 50, seen.ready_ms);
  RegisterSeen("resident then", "MiB", 9.5, seen.resident_mib);
  RegisterSeen("of it its own", "MiB", 1.2, seen.own_mib);
  RegisterSeen("resident after a listing", "MiB", {}, seen.loaded_mib);
  RegisterSeen("first listing", "ms", {}, seen.first_answer_ms);
  const int status = benchmarks::RunAll(argc, argv);
  device.reset();
  return status;
}

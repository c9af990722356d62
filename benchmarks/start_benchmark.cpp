// From the start of the daemon's process, over a store of 1,024 accounts, to its READY=1 and to the
// first answer that needs the accounts; and its resident memory then. The floor is the same program
// started and ended with nothing to do but load its libraries.
#include <benchmark/benchmark.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>

#include "support/daemon_process.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"

namespace {

using support::DaemonProcess;
using tevra::interfaces::ISecurityProvider;
using Clock = std::chrono::steady_clock;

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

void Start(benchmark::State& state) {
  double at_ready = 0, own = 0, resident = 0, first_call = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    if (device->LaunchAndAwaitReady() != DaemonProcess::Start::kReady) {
      state.SkipWithError("not ready");
      break;
    }
    const auto ready = Clock::now();
    state.SetIterationTime(std::chrono::duration<double>(ready - start).count());
    at_ready += StatusMiB(device->Running().Pid(), "VmRSS:");
    own += StatusMiB(device->Running().Pid(), "RssAnon:");
    WithProxy([&](ISecurityProvider& proxy) {
      const auto called = Clock::now();
      if (proxy.GetUsers().size() < 1024 * 20) state.SkipWithError("accounts missing");
      first_call += std::chrono::duration<double, std::milli>(Clock::now() - called).count();
    });
    resident += StatusMiB(device->Running().Pid(), "VmRSS:");
    device->Stop();
  }
  state.counters["resident_at_ready_mib"] =
      benchmark::Counter(at_ready, benchmark::Counter::kAvgIterations);
  state.counters["own_at_ready_mib"] = benchmark::Counter(own, benchmark::Counter::kAvgIterations);
  state.counters["resident_mib"] = benchmark::Counter(resident, benchmark::Counter::kAvgIterations);
  state.counters["first_call_ms"] =
      benchmark::Counter(first_call, benchmark::Counter::kAvgIterations);
}
BENCHMARK(Start)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

void FloorStartOfTheProgram(benchmark::State& state) {
  for (auto _ : state) {
    const auto start = Clock::now();
    if (support::RunProgram({VIGILAD_PATH, "--version"}).exit_code != 0) {
      state.SkipWithError("--version failed");
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
}
BENCHMARK(FloorStartOfTheProgram)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

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
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  device.reset();
}

// A question that the client answers from memory, beside a look-up in a map under a mutex with one
// clock read, and beside the call that it saves.
#include <benchmark/benchmark.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "support/daemon_process.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"
#include "vigila/client/vigila_client.h"

namespace {

using tevra::interfaces::ISecurityProvider;

std::unique_ptr<support::DaemonProcess> device;
std::string token;

// Every 1.5 seconds one of the calls goes to the server, as in life.
void AuthorizeCached(benchmark::State& state) {
  const vigila::client::VigilaClient client;
  for (auto _ : state) {
    if (!client.Authorize(token, "/jpeg/1")) state.SkipWithError("refused");
  }
}
BENCHMARK(AuthorizeCached);

void AuthorizeUncached(benchmark::State& state) {
  tevra::msgbus::MsgBus bus;
  const std::unique_ptr<ISecurityProvider> proxy(ISecurityProvider::CreateClient(&bus));
  for (auto _ : state) {
    if (!proxy->Authorize(token, "/jpeg/1")) state.SkipWithError("refused");
  }
}
BENCHMARK(AuthorizeUncached)->UseRealTime();

void FloorMapLookup(benchmark::State& state) {
  std::map<std::string, bool> answers = {{token + " /jpeg/1", true}};
  const std::string key = answers.begin()->first;
  std::mutex mutex;
  for (auto _ : state) {
    const std::lock_guard<std::mutex> lock(mutex);
    benchmark::DoNotOptimize(std::chrono::steady_clock::now());
    benchmark::DoNotOptimize(answers.find(key));
  }
}
BENCHMARK(FloorMapLookup);

void LogOn() {
  tevra::core::PlatformConfig::LoadFrom(device->ConfigFile());
  tevra::msgbus::MsgBus bus;
  const std::unique_ptr<ISecurityProvider> proxy(ISecurityProvider::CreateClient(&bus));
  proxy->AddUsers(
      "{\"Users\":[{\"Name\":\"admin\",\"Password\":\"adminpass\",\"Group\":1},"
      "{\"Name\":\"alice\",\"Password\":\"secret\",\"Group\":8}]}");
  token = proxy->Authenticate(false, "YWxpY2U=", "c2VjcmV0");
}

}  // namespace

int main(int argc, char** argv) {
  device = std::make_unique<support::DaemonProcess>();
  if (device->LaunchAndAwaitReady() != support::DaemonProcess::Start::kReady) {
    fprintf(stderr, "the daemon did not start: %s\n", device->Log().c_str());
    return 1;
  }
  LogOn();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  device.reset();
}

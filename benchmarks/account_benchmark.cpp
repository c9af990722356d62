// One durable account change beside one fdatasync of a page in the same directory.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "benchmarks/support/server_in_process.h"
#include "krand/core/settings_faults.h"

namespace {

using benchmarks::ServerInProcess;

std::unique_ptr<ServerInProcess> server;

void FloorFdatasync(benchmark::State& state) {
  const std::string path = server->Platform().SettingsDir() + "/floor";
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const std::string page(4096, 'p');
  constexpr int kPages = 256;
  for (int i = 0; i < kPages; ++i) {
    if (pwrite(fd, page.data(), page.size(), i * 4096) != 4096) state.SkipWithError("write");
  }
  fsync(fd);
  int i = 0;
  for (auto _ : state) {
    if (pwrite(fd, page.data(), page.size(), (i++ % kPages) * 4096) != 4096 || fdatasync(fd) != 0) {
      state.SkipWithError("write");
    }
  }
  close(fd);
  unlink(path.c_str());
}
BENCHMARK(FloorFdatasync)->UseRealTime();

void ChangeGroup(benchmark::State& state) {
  static bool viewer = true;  // from call to call: every change must be one
  const unsigned long before = krand_core_settings_write_count();
  for (auto _ : state) {
    viewer = !viewer;
    const char* json = viewer ? "{\"Users\":[{\"Name\":\"alice\",\"Group\":8}]}"
                              : "{\"Users\":[{\"Name\":\"alice\",\"Group\":4}]}";
    if (server->Provider().ModifyUsers(json) != 0) state.SkipWithError("refused");
  }
  state.counters["transactions"] =
      benchmark::Counter(static_cast<double>(krand_core_settings_write_count() - before),
                         benchmark::Counter::kAvgIterations);
}
BENCHMARK(ChangeGroup)->UseRealTime();

void ChangePassword(benchmark::State& state) {
  int number = 0;
  const unsigned long before = krand_core_settings_write_count();
  for (auto _ : state) {
    const std::string json = "{\"Users\":[{\"Name\":\"alice\",\"Group\":8,\"Password\":\"secret" +
                             std::to_string(++number) + "\"}]}";
    if (server->Provider().ModifyUsers(json) != 0) state.SkipWithError("refused");
  }
  state.counters["transactions"] =
      benchmark::Counter(static_cast<double>(krand_core_settings_write_count() - before),
                         benchmark::Counter::kAvgIterations);
}
BENCHMARK(ChangePassword)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  server = std::make_unique<ServerInProcess>();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  server.reset();
}

// Sessions in process, among 10, 1,000 and 100,000 others, beside what the work rests on: a look-up
// in a map of as many tokens with one clock read, and four bytes from the random device.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>

#include "benchmarks/support/server_in_process.h"
#include "vigila/server/session_manager.h"

namespace {

using benchmarks::ServerInProcess;
using tevra::interfaces::ISecurityProvider;
using vigila::model::User;
using Clock = std::chrono::steady_clock;

std::unique_ptr<ServerInProcess> server;

std::unique_ptr<User> NewRecord(int64_t number) {
  static const auto* const permissions = new std::set<_uuid_t>(
      server->Provider().GetUser(server->Logon("alice", "secret"), false)->Permissions());
  return std::make_unique<User>("user" + std::to_string(number % 100), "digest",
                                ISecurityProvider::kViewers, *permissions);
}

// Brings the number of sessions to `count` and returns the token of one of them.
const std::string& Fill(int64_t count) {
  static int64_t present = -1;
  static std::string token;
  if (present == count) return token;
  auto& sessions = server->Env().GetSessionManager();
  sessions.Invalidate("*");
  for (int64_t i = 0; i < count; ++i) token = sessions.Enroll(NewRecord(i).release());
  present = count;
  return token;
}

// Times `operation` alone, with what has to be done before and after it left out.
template <typename Before, typename Operation, typename After>
void MeasureAlone(benchmark::State& state, Before before, Operation operation, After after) {
  for (auto _ : state) {
    before();
    const auto start = Clock::now();
    operation();
    const auto end = Clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    after();
  }
}

void Authorize(benchmark::State& state) {
  const std::string token = Fill(state.range(0));
  for (auto _ : state) {
    bool granted = server->Provider().Authorize(token, "/jpeg/1");
    benchmark::DoNotOptimize(granted);
    if (!granted) state.SkipWithError("refused");
  }
}
BENCHMARK(Authorize)->Arg(10)->Arg(1000)->Arg(100000);

void Refresh(benchmark::State& state) {
  const std::string token = Fill(state.range(0));
  auto& sessions = server->Env().GetSessionManager();
  for (auto _ : state) benchmark::DoNotOptimize(sessions.Refresh(token));
}
BENCHMARK(Refresh)->Arg(10)->Arg(1000)->Arg(100000);

void Enroll(benchmark::State& state) {
  Fill(state.range(0));
  auto& sessions = server->Env().GetSessionManager();
  std::unique_ptr<User> record;
  std::string token;
  int64_t number = 0;
  MeasureAlone(
      state, [&] { record = NewRecord(++number); },
      [&] { token = sessions.Enroll(record.release()); }, [&] { sessions.Cancel(token); });
}
BENCHMARK(Enroll)->Arg(10)->Arg(1000)->Arg(100000)->UseManualTime();

void Cancel(benchmark::State& state) {
  Fill(state.range(0));
  auto& sessions = server->Env().GetSessionManager();
  std::string token;
  int64_t number = 0;
  MeasureAlone(
      state, [&] { token = sessions.Enroll(NewRecord(++number).release()); },
      [&] { sessions.Cancel(token); }, [] {});
}
BENCHMARK(Cancel)->Arg(10)->Arg(1000)->Arg(100000)->UseManualTime();

void FloorMapLookup(benchmark::State& state) {
  std::map<std::string, int> tokens;
  std::string token;
  for (int64_t i = 0; i < state.range(0); ++i) {
    char text[9];
    snprintf(text, sizeof(text), "%08X", static_cast<unsigned>(i * 2654435761u));
    tokens[token = text] = 1;
  }
  std::mutex mutex;
  for (auto _ : state) {
    const std::lock_guard<std::mutex> lock(mutex);
    benchmark::DoNotOptimize(std::chrono::system_clock::now());
    benchmark::DoNotOptimize(tokens.find(token));
  }
}
BENCHMARK(FloorMapLookup)->Arg(10)->Arg(1000)->Arg(100000);

void FloorRandomDevice(benchmark::State& state) {
  for (auto _ : state) {
    const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    char bytes[4];
    if (read(fd, bytes, sizeof(bytes)) != sizeof(bytes)) state.SkipWithError("read");
    benchmark::DoNotOptimize(bytes);
    close(fd);
  }
}
BENCHMARK(FloorRandomDevice);

}  // namespace

int main(int argc, char** argv) {
  server = std::make_unique<ServerInProcess>();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  server.reset();
}

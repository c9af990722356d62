// Sessions in process, among 10, 1,000 and 100,000 others, beside what the work rests on: a look-up
// in a map of as many tokens with one clock read, and four bytes from the random device.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "benchmarks/support/server_in_process.h"
#include "vigila/server/session_manager.h"

namespace {

using benchmarks::ServerInProcess;
using tevra::interfaces::ISecurityProvider;
using vigila::model::User;
using Clock = std::chrono::steady_clock;

std::unique_ptr<ServerInProcess> server;

// A record like those that a logon makes.
std::unique_ptr<User> NewRecord(int64_t number) {
  static const auto* const rights = new User::Rights{
      ISecurityProvider::kViewers,
      std::make_shared<const std::set<_uuid_t>>(
          server->Provider().GetUser(server->Logon("alice", "secret"), false)->Permissions())};
  return std::make_unique<User>("user" + std::to_string(number % 100),
                                "0123456789abcdef0123456789abcdef", *rights);
}

// In no order that a cache could learn, neither the logons' nor that of the tokens.
std::vector<std::string> Shuffled(std::vector<std::string> tokens) {
  std::shuffle(tokens.begin(), tokens.end(), std::mt19937(1));
  return tokens;
}

// Brings the number of sessions to `count` and returns their tokens.
const std::vector<std::string>& Fill(int64_t count) {
  static auto& tokens = *new std::vector<std::string>;
  if (static_cast<int64_t>(tokens.size()) == count) return tokens;
  auto& sessions = server->Env().GetSessionManager();
  sessions.Invalidate("*");
  tokens.clear();
  for (int64_t i = 0; i < count; ++i) tokens.push_back(sessions.Enroll(NewRecord(i).release()));
  return tokens = Shuffled(tokens);
}

// One token after the other, for ever.
class Round {
 public:
  explicit Round(const std::vector<std::string>& tokens) : tokens_(tokens) {}
  const std::string& Next() {
    if (next_ == tokens_.size()) next_ = 0;
    return tokens_[next_++];
  }

 private:
  const std::vector<std::string>& tokens_;
  std::size_t next_ = 0;
};

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
  Round tokens(Fill(state.range(0)));
  for (auto _ : state) {
    bool granted = server->Provider().Authorize(tokens.Next(), "/jpeg/1");
    benchmark::DoNotOptimize(granted);
    if (!granted) state.SkipWithError("refused");
  }
}
BENCHMARK(Authorize)->Arg(10)->Arg(1000)->Arg(100000);

void Refresh(benchmark::State& state) {
  Round tokens(Fill(state.range(0)));
  auto& sessions = server->Env().GetSessionManager();
  for (auto _ : state) benchmark::DoNotOptimize(sessions.Refresh(tokens.Next()));
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
  std::vector<std::string> texts;
  for (int64_t i = 0; i < state.range(0); ++i) {
    char text[9];
    snprintf(text, sizeof(text), "%08X", static_cast<unsigned>(i * 2654435761u));
    texts.push_back(text);
    tokens[text] = 1;
  }
  texts = Shuffled(texts);
  Round round(texts);
  std::mutex mutex;
  for (auto _ : state) {
    const std::lock_guard<std::mutex> lock(mutex);
    benchmark::DoNotOptimize(std::chrono::system_clock::now());
    benchmark::DoNotOptimize(tokens.find(round.Next()));
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

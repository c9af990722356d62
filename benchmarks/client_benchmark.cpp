// Questions that the client answers from memory, beside a look-up in a map under a mutex with one
// clock read, and beside the call that they save. One is asked of a daemon's client; all four of
// clients whose caches hold 10 and 10,000 answers, by 1 and 4 threads.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/daemon_process.h"
#include "support/recording_provider.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"
#include "vigila/client/monotonic_time_source.h"
#include "vigila/client/vigila_client.h"
#include "vigila/client/vigila_client_impl.h"

namespace {

using tevra::interfaces::ISecurityProvider;
using vigila::client::VigilaClient;

std::unique_ptr<support::DaemonProcess> device;
std::string token;

// Every 1.5 seconds one of the calls goes to the server, as in life.
void AuthorizeCached(benchmark::State& state) {
  const VigilaClient client;
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

// Grants everything and keeps nothing.
class GrantingProvider final : public support::RecordingProvider {
 public:
  std::string Authenticate(bool, const std::string&, const std::string&) override {
    return "0A1B2C3D";
  }
  bool IsAuthenticated(const std::string&) override { return true; }
  bool IsProtected(const std::string&) const override { return true; }
  bool Authorize(const std::string&, const std::string&) override { return true; }
};

// Costs what the client's own clock costs and stands still, so that a full cache stays full.
class StandingClock final : public tevra::osa::ITimeSource {
 public:
  void GetTime(tevra::osa::TimeStruct& now) const override {
    clock_.GetTime(now);
    benchmark::DoNotOptimize(now);
    now = tevra::osa::TimeStruct(1000, 0);
  }

 private:
  const vigila::client::MonotonicTimeSource clock_;
};

// What one of the four questions is asked with.
struct Question {
  std::string token;  // or the user's name
  std::string path;   // or the password
};

std::string Numbered(const char* format, std::size_t number) {
  char text[64];
  snprintf(text, sizeof text, format, static_cast<unsigned>(number));
  return text;
}

bool AskAuthenticate(const VigilaClient& client, const Question& question) {
  std::string answer;
  return client.Authenticate(question.token, question.path, "cache", answer);
}
bool AskAuthorize(const VigilaClient& client, const Question& question) {
  return client.Authorize(question.token, question.path);
}
bool AskIsAuthenticated(const VigilaClient& client, const Question& question) {
  return client.IsAuthenticated(question.token);
}
bool AskIsProtected(const VigilaClient& client, const Question& question) {
  return client.IsProtected(question.path);
}

using Ask = bool (*)(const VigilaClient&, const Question&);

// A client that knows the answers to `count` questions of one kind.
class FullClient {
 public:
  FullClient(Ask ask, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      questions_.push_back({Numbered("%08X", i * 40503), Numbered("/rtsp/stream/%05u", i)});
    }
    VigilaClient::Impl::SetMaker([] {
      static const StandingClock clock;
      return std::make_unique<VigilaClient::Impl>(std::make_unique<GrantingProvider>(), clock);
    });
    client_ = std::make_unique<VigilaClient>();
    VigilaClient::Impl::SetMaker({});
    const std::size_t before = mallinfo2().uordblks;
    for (const Question& question : questions_) ask(*client_, question);
    bytes_per_entry_ =
        static_cast<double>(mallinfo2().uordblks - before) / static_cast<double>(count);
  }

  const VigilaClient& Client() const { return *client_; }
  const std::vector<Question>& Questions() const { return questions_; }
  double BytesPerEntry() const { return bytes_per_entry_; }

  static const FullClient& Of(Ask ask, std::size_t count) {
    static std::mutex mutex;
    static auto& clients = *new std::map<std::pair<Ask, std::size_t>, std::unique_ptr<FullClient>>;
    const std::lock_guard<std::mutex> lock(mutex);
    auto& client = clients[{ask, count}];
    if (!client) client = std::make_unique<FullClient>(ask, count);
    return *client;
  }

 private:
  std::vector<Question> questions_;
  std::unique_ptr<VigilaClient> client_;
  double bytes_per_entry_ = 0;
};

// Threads begin at different questions.
std::size_t FirstOf(const benchmark::State& state, std::size_t count) {
  return static_cast<std::size_t>(state.thread_index()) * count /
         static_cast<std::size_t>(state.threads());
}

template <Ask ask>
void CacheHit(benchmark::State& state) {
  const FullClient& full = FullClient::Of(ask, static_cast<std::size_t>(state.range(0)));
  std::size_t next = FirstOf(state, full.Questions().size());
  for (auto _ : state) {
    if (!ask(full.Client(), full.Questions()[next])) state.SkipWithError("refused");
    if (++next == full.Questions().size()) next = 0;
  }
  state.counters["bytes_per_entry"] =
      benchmark::Counter(full.BytesPerEntry(), benchmark::Counter::kAvgThreads);
}

// The least that a cache shared by threads does, whatever is in it.
struct SharedMap {
  std::mutex mutex;
  std::map<std::string, bool> answers;  // guarded by mutex
  std::vector<std::string> keys;
};

SharedMap& SharedMapOf(std::size_t count) {
  static std::mutex mutex;
  static auto& maps = *new std::map<std::size_t, SharedMap>;
  const std::lock_guard<std::mutex> lock(mutex);
  SharedMap& map = maps[count];
  while (map.keys.size() < count) {
    const std::size_t i = map.keys.size();
    map.keys.push_back(Numbered("%08X", i * 40503) + Numbered(" /rtsp/stream/%05u", i));
    map.answers[map.keys.back()] = true;
  }
  return map;
}

void FloorSharedMap(benchmark::State& state) {
  SharedMap& map = SharedMapOf(static_cast<std::size_t>(state.range(0)));
  std::size_t next = FirstOf(state, map.keys.size());
  for (auto _ : state) {
    {
      const std::lock_guard<std::mutex> lock(map.mutex);
      benchmark::DoNotOptimize(std::chrono::steady_clock::now());
      benchmark::DoNotOptimize(map.answers.find(map.keys[next]));
    }
    if (++next == map.keys.size()) next = 0;
  }
}

// Filled before anything is measured, by one thread, whose memory is counted.
void FillCaches() {
  for (const Ask ask : {AskAuthenticate, AskAuthorize, AskIsAuthenticated, AskIsProtected}) {
    for (const std::size_t count : {10, 10000}) FullClient::Of(ask, count);
  }
}

void RegisterCacheHits() {
  const std::pair<const char*, void (*)(benchmark::State&)> kBenchmarks[] = {
      {"CacheHitAuthenticate", CacheHit<AskAuthenticate>},
      {"CacheHitAuthorize", CacheHit<AskAuthorize>},
      {"CacheHitIsAuthenticated", CacheHit<AskIsAuthenticated>},
      {"CacheHitIsProtected", CacheHit<AskIsProtected>},
      {"FloorSharedMap", FloorSharedMap}};
  for (const auto& [name, measure] : kBenchmarks) {
    for (const int threads : {1, 4}) {
      auto* const added =
          benchmark::RegisterBenchmark(name, measure)->Arg(10)->Arg(10000)->Threads(threads);
      if (threads > 1) added->UseRealTime();
    }
  }
}

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
  FillCaches();
  RegisterCacheHits();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  device.reset();
}

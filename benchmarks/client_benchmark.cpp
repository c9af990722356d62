// Questions that a client answers from memory, and what it costs to keep a new answer. The budgeted
// hit is one of a daemon's client, so that it asks whether the answer still holds; hits and misses
// among many entries are those of a client over a provider of this program's own, whose clock
// stands still, so that what is kept stays.
#include <malloc.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/support/pairs.h"
#include "benchmarks/support/team.h"
#include "support/daemon_process.h"
#include "support/recording_provider.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"
#include "vigila/client/monotonic_time_source.h"
#include "vigila/client/vigila_client.h"
#include "vigila/client/vigila_client_impl.h"

namespace {

using benchmarks::Batch;
using benchmarks::Clock;
using benchmarks::Placement;
using benchmarks::RegisterFigure;
using benchmarks::RegisterPair;
using benchmarks::Team;
using benchmarks::Timed;
using tevra::interfaces::ISecurityProvider;
using vigila::client::AuthorizeCommand;
using vigila::client::VigilaClient;

constexpr char kPath[] = "/jpeg/1";
std::string token;

void Require(bool granted) {
  if (!granted) throw std::runtime_error("refused");
}

// --- one answer of a daemon
// -----------------------------------------------------------------------

// The least that a cache which threads share does. Two of them share no cache line.
class alignas(64) SharedMap {
 public:
  void Add(const std::string& key) { answers_[key] = true; }
  void LookUp(const std::string& key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    benchmark::DoNotOptimize(Clock::now());
    benchmark::DoNotOptimize(answers_.find(key));
  }

 private:
  std::mutex mutex_;
  std::map<std::string, bool> answers_;
};

std::pair<Batch, Batch> CachedAnswer() {
  const auto client = std::make_shared<VigilaClient>();
  const auto map = std::make_shared<SharedMap>();
  const std::string key = token + kPath;
  map->Add(key);
  return {Timed([client] { Require(client->Authorize(token, kPath)); }),
          Timed([map, key] { map->LookUp(key); })};
}

// Hits of one client, by so many threads. They go on at once when one is refused.
Batch HitsBy(int threads) {
  struct Hits {
    VigilaClient client;
    std::atomic<bool> refused{false};
  };
  const auto hits = std::make_shared<Hits>();
  const auto team = std::make_shared<Team>(threads, [hits](int, int count) {
    for (int i = 0; i < count; ++i) {
      if (!hits->client.Authorize(token, kPath)) hits->refused = true;
    }
  });
  return [hits, team](int count) {
    const double cost = team->Run(count);
    Require(!hits->refused);
    return cost;
  };
}

// Every thread with a map of its own.
Batch NothingSharedBy(int threads) {
  const std::string key = token + kPath;
  const auto maps = std::make_shared<std::vector<SharedMap>>(static_cast<size_t>(threads));
  for (SharedMap& map : *maps) map.Add(key);
  const auto team = std::make_shared<Team>(threads, [maps, key](int index, int count) {
    for (int i = 0; i < count; ++i) (*maps)[static_cast<size_t>(index)].LookUp(key);
  });
  return [maps, team](int count) { return team->Run(count); };
}

// --- many answers
// ---------------------------------------------------------------------------------

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

  // No two are the same, and their order is not that of the numbers.
  explicit Question(size_t number)
      : token(Format("%08X", static_cast<unsigned>(number * 40503))),
        path(Format("/rtsp/stream/%06u", static_cast<unsigned>(number))) {}

 private:
  static std::string Format(const char* format, unsigned number) {
    char text[32];
    snprintf(text, sizeof(text), format, number);
    return text;
  }
};

using Ask = bool (*)(const VigilaClient&, const Question&);
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

std::vector<Question> Questions(size_t first, size_t count) {
  std::vector<Question> questions;
  questions.reserve(count);
  for (size_t i = first; i < first + count; ++i) questions.emplace_back(i);
  return questions;
}

// A client that knows the answers to the first `count` questions of one kind.
class FullClient {
 public:
  FullClient(Ask ask, size_t count) : ask_(ask) {
    VigilaClient::Impl::SetMaker([] {
      static const StandingClock clock;
      return std::make_unique<VigilaClient::Impl>(std::make_unique<GrantingProvider>(), clock);
    });
    client_ = std::make_unique<VigilaClient>();
    VigilaClient::Impl::SetMaker({});
    for (const Question& question : Questions(0, count)) AskFor(question);
  }
  void AskFor(const Question& question) const { Require(ask_(*client_, question)); }

 private:
  const Ask ask_;
  std::unique_ptr<VigilaClient> client_;
};

std::pair<Batch, Batch> HitsAmong(Ask ask, size_t count) {
  struct State {
    State(Ask question, size_t size) : client(question, size), questions(Questions(0, size)) {
      for (const Question& one : questions) {
        keys.push_back(one.token + one.path);
        map.Add(keys.back());
      }
    }
    // One after the other, for ever.
    size_t Next(size_t& at) const { return at = at + 1 < keys.size() ? at + 1 : 0; }

    FullClient client;
    const std::vector<Question> questions;
    SharedMap map;
    std::vector<std::string> keys;
    size_t asked = 0, looked_up = 0;
  };
  const auto state = std::make_shared<State>(ask, count);
  return {Timed([state] { state->client.AskFor(state->questions[state->Next(state->asked)]); }),
          Timed([state] { state->map.LookUp(state->keys[state->Next(state->looked_up)]); })};
}

// A cache's own map, without a lock and without the order of last use. An entry is not there
// without the time of its store, so the clock is read once; the cache itself reads it twice.
class BareCache {
 public:
  explicit BareCache(size_t count) {
    for (const Question& question : Questions(0, count)) Insert(question);
  }
  void Insert(const Question& question) {
    auto command = std::make_unique<const AuthorizeCommand>(question.token, question.path);
    const vigila::client::KeyPtrWrapper<AuthorizeCommand> key(command.get());
    const auto [entry, is_new] =
        entries_.try_emplace(key, std::move(command), tevra::interfaces::AnswerStamp(nullptr));
    clock_.GetTime(entry->second.last_use());
  }

 private:
  const vigila::client::MonotonicTimeSource clock_;
  vigila::client::Cache<AuthorizeCommand>::Entries entries_;
};

// New questions among `count` entries. What they add is a small part, or is taken away again.
template <typename Holder, typename Put>
Batch NewEntries(size_t count, std::function<std::shared_ptr<Holder>()> make, Put put) {
  struct State {
    std::shared_ptr<Holder> holder;
    size_t size = 0;
  };
  const auto state = std::make_shared<State>();
  return [=](int added) {
    const auto more = static_cast<size_t>(added);
    if (state->holder == nullptr || state->size + more > count + std::max(count / 4, more)) {
      state->holder = make();
      state->size = count;
    }
    const std::vector<Question> questions = Questions(state->size, more);
    state->size += more;
    const auto start = Clock::now();
    for (const Question& question : questions) put(*state->holder, question);
    return benchmarks::Nanoseconds(Clock::now() - start) / added;
  };
}

std::pair<Batch, Batch> MissesAmong(size_t count) {
  return {NewEntries<FullClient>(
              count, [count] { return std::make_shared<FullClient>(AskAuthorize, count); },
              [](FullClient& client, const Question& question) { client.AskFor(question); }),
          NewEntries<BareCache>(
              count, [count] { return std::make_shared<BareCache>(count); },
              [](BareCache& cache, const Question& question) { cache.Insert(question); })};
}

double BytesPerEntry(Ask ask) {
  constexpr size_t kEntries = 10000;
  const std::vector<Question> questions = Questions(0, kEntries);
  const FullClient client(ask, 0);
  const size_t before = mallinfo2().uordblks;
  for (const Question& question : questions) client.AskFor(question);
  return static_cast<double>(mallinfo2().uordblks - before) / kEntries;
}

// --- the rows
// -------------------------------------------------------------------------------------

const char kMapFloor[] = "a map look-up under a mutex with one clock read";

void RegisterHits() {
  RegisterPair({.name = "client cache hit", .floor = kMapFloor, .budget = 1.6}, CachedAnswer);
  RegisterPair({.name = "client cache hit, 4 threads",
                .floor = "one thread",
                .budget = 1.0,
                .placement = Placement::kAnyCore},
               [] { return std::pair(HitsBy(4), HitsBy(1)); });
  for (const int threads : {1, 2, 4, 8}) {
    RegisterPair({.name = "client cache hit by threads|" + std::to_string(threads),
                  .floor = "maps that are not shared",
                  .size = static_cast<double>(threads),
                  .placement = Placement::kAnyCore},
                 [threads] { return std::pair(HitsBy(threads), NothingSharedBy(threads)); });
  }
}

void RegisterEntries() {
  const std::pair<const char*, Ask> kQuestions[] = {{"Authorize", AskAuthorize},
                                                    {"Authenticate", AskAuthenticate},
                                                    {"IsAuthenticated", AskIsAuthenticated},
                                                    {"IsProtected", AskIsProtected}};
  for (const auto& [name, ask] : kQuestions) {
    for (const size_t count : {10, 1000, 10000, 50000}) {
      RegisterPair({.name = std::string("hit, ") + name + "|" + std::to_string(count),
                    .floor = kMapFloor,
                    .size = static_cast<double>(count)},
                   [ask = ask, count] { return HitsAmong(ask, count); });
    }
    RegisterFigure(std::string("one cached answer of ") + name, "bytes", {},
                   [ask = ask] { return BytesPerEntry(ask); });
  }
  for (const size_t count : {10, 1000, 10000, 50000}) {
    RegisterPair({.name = "client cache miss|" + std::to_string(count),
                  .floor = "a bare insertion into the same map with one clock read",
                  .budget = 1.5,
                  .size = static_cast<double>(count),
                  .count = 64},
                 [count] { return MissesAmong(count); });
  }
}

void LogOn(const support::DaemonProcess& device) {
  tevra::core::PlatformConfig::LoadFrom(device.ConfigFile());
  tevra::msgbus::MsgBus bus;
  const std::unique_ptr<ISecurityProvider> proxy(ISecurityProvider::CreateClient(&bus));
  proxy->AddUsers(
      "{\"Users\":[{\"Name\":\"admin\",\"Password\":\"adminpass\",\"Group\":1},"
      "{\"Name\":\"alice\",\"Password\":\"secret\",\"Group\":8}]}");
  token = proxy->Authenticate(false, "YWxpY2U=", "c2VjcmV0");
}

}  // namespace

int main(int argc, char** argv) {
  support::DaemonProcess device;
  if (device.LaunchAndAwaitReady() != support::DaemonProcess::Start::kReady) {
    fprintf(stderr, "the daemon did not start: %s\n", device.Log().c_str());
    return 1;
  }
  LogOn(device);
  RegisterHits();
  RegisterEntries();
  return benchmarks::RunAll(argc, argv);
}

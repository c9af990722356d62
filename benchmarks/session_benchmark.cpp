// Sessions in process, among 10 to 100,000 others, beside a look-up of as many tokens in the same
// hash table, and four bytes from the random device.
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/support/hash_table.h"
#include "benchmarks/support/pairs.h"
#include "benchmarks/support/server_in_process.h"
#include "vigila/server/session_manager.h"

namespace {

using benchmarks::Batch;
using benchmarks::Clock;
using benchmarks::HashTable;
using benchmarks::LookUps;
using benchmarks::Nanoseconds;
using benchmarks::RegisterPair;
using benchmarks::Round;
using benchmarks::ServerInProcess;
using benchmarks::Timed;
using tevra::interfaces::ISecurityProvider;
using vigila::model::User;

constexpr size_t kSizes[] = {10, 100, 1000, 10000, 100000};
constexpr int kBatch = 64;  // of what is made for the measurement and taken away after it

std::unique_ptr<ServerInProcess> server;

vigila::server::SessionManager& Sessions() {
  return server->Env().GetSessionManager();
}

// A record like those that a logon makes.
std::unique_ptr<User> NewRecord(size_t number) {
  static const auto* const rights = new User::Rights{
      ISecurityProvider::kViewers,
      std::make_shared<const std::set<_uuid_t>>(
          server->Provider().GetUser(server->Logon("alice", "secret"), false)->Permissions())};
  return std::make_unique<User>("user" + std::to_string(number % 100),
                                "0123456789abcdef0123456789abcdef", *rights);
}

// Brings the number of sessions to `count` and returns their tokens.
const std::vector<std::string>& Fill(size_t count) {
  static auto& tokens = *new std::vector<std::string>;
  if (tokens.size() == count) return tokens;
  NewRecord(0);  // its logon is no session of ours
  Sessions().Invalidate("*");
  tokens.clear();
  for (size_t i = 0; i < count; ++i) tokens.push_back(Sessions().Enroll(NewRecord(i).release()));
  return tokens;
}

std::pair<Batch, Batch> Authorize(size_t count) {
  const std::vector<std::string>& tokens = Fill(count);
  return {Timed([round = Round(tokens)]() mutable {
            if (!server->Provider().Authorize(round.Next(), "/jpeg/1")) {
              throw std::runtime_error("refused");
            }
          }),
          LookUps(tokens)};
}

std::pair<Batch, Batch> Refresh(size_t count) {
  const std::vector<std::string>& tokens = Fill(count);
  return {Timed([round = Round(tokens)]() mutable {
            if (!Sessions().Refresh(round.Next())) throw std::runtime_error("no session");
          }),
          LookUps(tokens)};
}

// Sessions that come and go again.
std::vector<std::string> EnrollSome(int count) {
  std::vector<std::string> tokens;
  for (int i = 0; i < count; ++i) {
    tokens.push_back(Sessions().Enroll(NewRecord(static_cast<size_t>(i)).release()));
  }
  std::shuffle(tokens.begin(), tokens.end(), std::mt19937(2));
  return tokens;
}

double CancelSome(int count) {
  const std::vector<std::string> tokens = EnrollSome(count);
  const auto start = Clock::now();
  for (const std::string& token : tokens) Sessions().Cancel(token);
  return Nanoseconds(Clock::now() - start) / count;
}

std::pair<Batch, Batch> Cancel(size_t count) {
  const auto table = std::make_shared<HashTable>(Fill(count));
  return {CancelSome, [table](int erased) {
            std::vector<std::string> tokens;
            for (int i = 0; i < erased; ++i) {
              char text[9];
              snprintf(text, sizeof(text), "%08X", static_cast<unsigned>(i) * 2654435761u);
              tokens.emplace_back(text);
              table->Insert(tokens.back());
            }
            std::shuffle(tokens.begin(), tokens.end(), std::mt19937(2));
            const auto start = Clock::now();
            for (const std::string& token : tokens) table->Erase(token);
            return Nanoseconds(Clock::now() - start) / erased;
          }};
}

double MeasureEnroll(int count) {
  std::vector<std::unique_ptr<User>> records;
  for (int i = 0; i < count; ++i) records.push_back(NewRecord(static_cast<size_t>(i)));
  std::vector<std::string> tokens(records.size());
  const auto start = Clock::now();
  for (size_t i = 0; i < records.size(); ++i) tokens[i] = Sessions().Enroll(records[i].release());
  const double cost = Nanoseconds(Clock::now() - start) / count;
  for (const std::string& token : tokens) Sessions().Cancel(token);
  return cost;
}

void ReadRandomDevice() {
  const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  char bytes[4];
  if (read(fd, bytes, sizeof(bytes)) != sizeof(bytes)) throw std::runtime_error("read");
  benchmark::DoNotOptimize(bytes);
  close(fd);
}

void Register(const std::string& name, int count, std::optional<double> growth_budget,
              std::pair<Batch, Batch> (*make)(size_t)) {
  for (const size_t size : kSizes) {
    RegisterPair({.name = name + "|" + std::to_string(size),
                  .floor = "a look-up in the same hash table",
                  .growth_budget = growth_budget,
                  .size = static_cast<double>(size),
                  .count = count},
                 [make, size] { return make(size); });
  }
}

// The most that a question among 100,000 sessions costs.
double MicrosecondsToAuthorize() {
  const Batch batch = Authorize(100000).first;
  std::vector<double> costs;
  for (int i = 0; i < benchmarks::DefaultPairs(); ++i) costs.push_back(batch(1000) / 1e3);
  return benchmarks::Median(costs);
}

}  // namespace

int main(int argc, char** argv) {
  server = std::make_unique<ServerInProcess>();
  Register("authorize in process", 0, 1.5, Authorize);
  benchmarks::RegisterFigure("authorize among 100,000 sessions", "us", 2.0,
                             MicrosecondsToAuthorize);
  Register("refresh", 0, 1.5, Refresh);
  Register("cancel", kBatch, 1.5, Cancel);
  for (const size_t size : kSizes) {
    RegisterPair({.name = "enroll|" + std::to_string(size),
                  .floor = "4 bytes of the random device",
                  .size = static_cast<double>(size),
                  .count = kBatch},
                 [size] {
                   Fill(size);
                   return std::pair<Batch, Batch>(MeasureEnroll, Timed(ReadRandomDevice));
                 });
  }
  const int status = benchmarks::RunAll(argc, argv);
  server.reset();
  return status;
}

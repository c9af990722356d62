// What becomes of a grant that ends. Trials: a session is made, its grant is kept in memory,
// another process ends the session, and the client is asked again. A storm: one user's log-outs
// beside the kept answers of another. And how long a client that asks without a pause goes on
// granting while something is changed: from the request for the change and from its answer (or the
// daemon's end).
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "benchmarks/support/md5_hex.h"
#include "benchmarks/support/pairs.h"
#include "krand/interfaces/permission_initiator.h"
#include "support/daemon_process.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"
#include "vigila/client/vigila_client.h"

namespace {

using benchmarks::Clock;
using benchmarks::Md5Hex;
using benchmarks::RegisterFigure;
using support::DaemonProcess;
using tevra::interfaces::ISecurityProvider;
using vigila::client::VigilaClient;

constexpr char kPath[] = "/jpeg/1";
constexpr char kRulePath[] = "/jpeg*";
constexpr char kViewersRule[] = "@viewers";
constexpr char kAdminsRule[] = "@admins";

void Require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

// Another process, with a client of its own, that ends sessions. Start it before the process has
// threads, and once the platform's configuration is loaded.
class Revoker {
 public:
  Revoker() {
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      close(ends[0]);
      Serve(ends[1]);
      _exit(0);
    }
    mine_ = support::Fd(ends[0]);
    close(ends[1]);
  }
  ~Revoker() {
    mine_.Close();
    waitpid(pid_, nullptr, 0);
  }
  Revoker(const Revoker&) = delete;
  Revoker& operator=(const Revoker&) = delete;

  // Both return when the service has answered.
  void LogOut(const std::string& token) const { Command("L" + token); }
  void Invalidate(const std::string& name) const { Command("I" + name); }

 private:
  void Command(const std::string& text) const {
    char answer = 0;
    Require(send(mine_.Get(), text.data(), text.size(), MSG_NOSIGNAL) > 0 &&
                recv(mine_.Get(), &answer, 1, 0) == 1,
            "the other process has gone");
  }
  static void Serve(int fd) {
    const VigilaClient client;
    char text[256];
    ssize_t size = 0;
    while ((size = recv(fd, text, sizeof(text), 0)) > 0) {
      const std::string argument(text + 1, static_cast<size_t>(size) - 1);
      if (text[0] == 'L') {
        client.Logout(argument);
      } else {
        client.Invalidate(argument);
      }
      if (send(fd, "", 1, MSG_NOSIGNAL) != 1) return;
    }
  }

  support::Fd mine_;
  pid_t pid_ = -1;
};

// Sessions of one user by digest logons, which cost no RSA operation.
class DigestUser {
 public:
  DigestUser(const VigilaClient& client, const std::string& name)
      : client_(client), name_(name), ha1_(Md5Hex(name + ":Varno:secret")) {}

  std::string LogOn() {
    // A nonce is good for some minutes.
    if (count_ % 1000 == 0) nonce_ = client_.GetNonce();
    char nc[9];
    snprintf(nc, sizeof(nc), "%08x", ++count_);
    const std::string response =
        Md5Hex(ha1_ + ":" + nonce_ + ":" + nc + ":" + kCnonce + ":auth:" + kHa2);
    std::string token;
    Require(client_.AuthenticateHttp(name_, nonce_, kHa2, false, "auth", kCnonce, nc, response, "",
                                     token),
            "the digest logon failed");
    return token;
  }

 private:
  static constexpr char kCnonce[] = "0a4f113b";
  static constexpr char kHa2[] = "39aff3a2bab6126f332b942af96d3366";

  const VigilaClient& client_;
  const std::string name_;
  const std::string ha1_;
  std::string nonce_;
  unsigned count_ = 0;
};

// A device, the client that is asked, and the other connection over which things change.
class Device {
 public:
  Device() {
    Start();
    tevra::core::PlatformConfig::LoadFrom(daemon_.ConfigFile());
    revoker_ = std::make_unique<Revoker>();
    client_ = std::make_unique<VigilaClient>();
    bus_ = std::make_unique<tevra::msgbus::MsgBus>();
    proxy_.reset(ISecurityProvider::CreateClient(bus_.get()));
    rules_ = std::make_unique<KrandApiPermissionInitiator>("permission");
    AddUser("admin", 1);
    AddUser("alice", 8);
    AddUser("bob", 8);
    SetRule(kViewersRule);
  }

  const VigilaClient& Client() const { return *client_; }
  const Revoker& Other() const { return *revoker_; }
  ISecurityProvider& Proxy() { return *proxy_; }
  void SetRule(const char* rule) { rules_->SetAccessRule(kRulePath, rule); }
  void AddUser(const std::string& name, int group) {
    proxy_->AddUsers(R"({"Users":[{"Name":")" + name + R"(","Password":"secret","Group":)" +
                     std::to_string(group) + "}]}");
  }
  bool Grants(const std::string& token) const { return client_->Authorize(token, kPath); }
  void Start() {
    Require(daemon_.LaunchAndAwaitReady() == DaemonProcess::Start::kReady,
            "the daemon did not start");
  }
  void Kill() { daemon_.Stop(SIGKILL); }

 private:
  DaemonProcess daemon_;
  std::unique_ptr<Revoker> revoker_;
  std::unique_ptr<VigilaClient> client_;
  std::unique_ptr<tevra::msgbus::MsgBus> bus_;
  std::unique_ptr<ISecurityProvider> proxy_;
  std::unique_ptr<KrandApiPermissionInitiator> rules_;
};

std::unique_ptr<Device> device;

int Trials() {
  const char* text = getenv("BENCHMARK_TRIALS");
  return text != nullptr ? std::max(2, atoi(text)) : 100000;
}

// Every second session is logged out, every other one invalidated with all of its user's.
double GrantsAfterRevocation() {
  DigestUser alice(device->Client(), "alice");
  const uint64_t hits_before = device->Client().GetCounts().cache_hits;
  int grants = 0;
  for (int i = 0; i < Trials(); ++i) {
    const std::string token = alice.LogOn();
    Require(device->Grants(token) && device->Grants(token), "refused");
    if (i % 2 == 0) {
      device->Other().LogOut(token);
    } else {
      device->Other().Invalidate("alice");
    }
    if (device->Grants(token)) ++grants;
  }
  // A client that keeps nothing has nothing to take back.
  const uint64_t hits = device->Client().GetCounts().cache_hits - hits_before;
  Require(hits >= static_cast<uint64_t>(Trials()) / 2, "nothing was kept");
  return grants;
}

// Of one kept answer, for each log-out of somebody else. A session's end takes back what is kept
// for the tokens of its slot, one of some hundreds.
double MissesInALogOutStorm() {
  constexpr int kLogOuts = 2000;
  constexpr int kKept = 50;
  DigestUser alice(device->Client(), "alice");
  DigestUser bob(device->Client(), "bob");
  std::vector<std::string> tokens;
  while (tokens.size() < kKept) tokens.push_back(bob.LogOn());
  uint64_t misses = 0;
  for (int i = 0; i < kLogOuts; ++i) {
    for (const std::string& token : tokens) Require(device->Grants(token), "refused");
    device->Other().LogOut(alice.LogOn());
    const uint64_t before = device->Client().GetCounts().cache_misses;
    for (const std::string& token : tokens) Require(device->Grants(token), "refused");
    misses += device->Client().GetCounts().cache_misses - before;
  }
  device->Proxy().Invalidate("*");
  return static_cast<double>(misses) / (kLogOuts * kKept);
}

// One kind of change: what makes a grant, what asks for it, what ends it, what mends things again.
struct Change {
  std::string name;
  int count;
  std::function<void()> prepare;
  std::function<bool()> question;
  std::function<void()> change;
  std::function<void()> mend = [] {};
};

// Microseconds, 0 when the last grant came earlier.
struct LastGrants {
  std::vector<double> after_request, after_answer;
};

double MicrosecondsFrom(Clock::time_point start, Clock::time_point end) {
  return std::max(0.0, benchmarks::Nanoseconds(end - start) / 1e3);
}

void MeasureLastGrant(const Change& kind, LastGrants* result) {
  kind.prepare();
  std::atomic<int> grants{0};
  Clock::time_point last;
  std::thread asker([&] {
    while (kind.question()) {
      last = Clock::now();
      ++grants;
    }
    grants = -1;
  });
  // From here on the grant comes from memory.
  while (grants >= 0 && grants < 100) std::this_thread::yield();
  const Clock::time_point request = Clock::now();
  const bool granted_before = grants > 0;
  kind.change();
  const Clock::time_point answer = Clock::now();
  asker.join();
  Require(granted_before, "nothing was granted");
  kind.mend();
  result->after_request.push_back(MicrosecondsFrom(request, last));
  result->after_answer.push_back(MicrosecondsFrom(answer, last));
}

void Register(const Change& kind) {
  const auto result = std::make_shared<LastGrants>();
  RegisterFigure(kind.name + " asked, last grant", "us, median", {}, [kind, result] {
    for (int i = 0; i < kind.count; ++i) MeasureLastGrant(kind, result.get());
    return benchmarks::Median(result->after_request);
  });
  RegisterFigure(kind.name + " done, last grant", "us, worst", {}, [result] {
    Require(!result->after_answer.empty(), "nothing was measured");
    return benchmarks::Quantile(result->after_answer, 1);
  });
}

void RegisterChanges() {
  static auto& alice = *new DigestUser(device->Client(), "alice");
  static auto& token = *new std::string;
  static auto& name = *new std::string;
  const auto log_on = [] { token = alice.LogOn(); };
  const auto authorize = [] { return device->Grants(token); };
  Register({"log-out", 200, log_on, authorize, [] { device->Proxy().Logout(token); }});
  Register({"invalidation", 200, log_on, authorize, [] { device->Proxy().Invalidate("alice"); }});
  Register({"rule change", 200, log_on, authorize, [] { device->SetRule(kAdminsRule); },
            [] { device->SetRule(kViewersRule); }});
  Register({"deletion", 50,
            [] {
              // A new account each time: the refusal of the one before is remembered as well.
              static int users = 0;
              name = "user" + std::to_string(++users);
              device->AddUser(name, 8);
            },
            [] {
              std::string answer;
              return device->Client().Authenticate(name, "secret", "", answer);
            },
            [] { device->Proxy().DeleteUsers({name}); }});
  // The accounts that live on have new sessions and nonces with the new daemon.
  Register({"daemon's end", 10, [] { token = DigestUser(device->Client(), "alice").LogOn(); },
            authorize, [] { device->Kill(); }, [] { device->Start(); }});
}

}  // namespace

int main(int argc, char** argv) {
  device = std::make_unique<Device>();
  RegisterFigure("grants after revocation, of " + std::to_string(Trials()), "", 0,
                 GrantsAfterRevocation);
  RegisterFigure("misses by another's log-out", "an answer", 0.01, MissesInALogOutStorm);
  RegisterChanges();
  const int status = benchmarks::RunAll(argc, argv);
  device.reset();
  return status;
}

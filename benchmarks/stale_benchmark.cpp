// How long a client goes on granting what is no longer so: it asks without a pause while somebody
// else logs out, ends sessions, changes a rule, deletes an account, or kills the daemon. Each
// iteration is one such change. The time is that from the request for the change to the last grant;
// "answered_us" and "worst_us" are median and worst of the time from the change's answer (or the
// daemon's end) to the last grant, 0 when the last grant came earlier.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "krand/base64/base64.h"
#include "krand/interfaces/permission_initiator.h"
#include "support/daemon_process.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"
#include "vigila/client/vigila_client.h"

namespace {

using krand::lib::Base64;
using support::DaemonProcess;
using tevra::interfaces::ISecurityProvider;
using vigila::client::VigilaClient;
using Clock = std::chrono::steady_clock;

constexpr char kPath[] = "/jpeg/1";
constexpr char kRulePath[] = "/jpeg*";
constexpr char kViewersRule[] = "@viewers";
constexpr char kAdminsRule[] = "@admins";

// A device, the client that is asked, and the other connection over which things change.
class Device {
 public:
  Device() {
    Start();
    tevra::core::PlatformConfig::LoadFrom(daemon_.ConfigFile());
    client_ = std::make_unique<VigilaClient>();
    bus_ = std::make_unique<tevra::msgbus::MsgBus>();
    proxy_.reset(ISecurityProvider::CreateClient(bus_.get()));
    rules_ = std::make_unique<KrandApiPermissionInitiator>("permission");
    AddUser("admin", 1);
    AddUser("alice", 8);
  }

  VigilaClient& Client() { return *client_; }
  ISecurityProvider& Proxy() { return *proxy_; }
  void SetRule(const char* rule) { rules_->SetAccessRule(kRulePath, rule); }
  void AddUser(const std::string& name, int group) {
    proxy_->AddUsers(R"({"Users":[{"Name":")" + name + R"(","Password":"secret","Group":)" +
                     std::to_string(group) + "}]}");
  }
  std::string LogOn() {
    return proxy_->Authenticate(false, Base64::Encode("alice"), Base64::Encode("secret"));
  }
  void Start() {
    if (daemon_.LaunchAndAwaitReady() != DaemonProcess::Start::kReady) {
      throw std::runtime_error("the daemon did not start: " + daemon_.Log());
    }
  }
  void Kill() { daemon_.Stop(SIGKILL); }

 private:
  DaemonProcess daemon_;
  std::unique_ptr<VigilaClient> client_;
  std::unique_ptr<tevra::msgbus::MsgBus> bus_;
  std::unique_ptr<ISecurityProvider> proxy_;
  std::unique_ptr<KrandApiPermissionInitiator> rules_;
};

std::unique_ptr<Device> device;

// One kind of change: what makes a grant, what asks for it, what ends it, what mends things again.
struct Change {
  std::function<void()> prepare;
  std::function<bool()> question;
  std::function<void()> change;
  std::function<void()> mend = [] {};
};

double Microseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

void MeasureLastGrant(benchmark::State& state, const Change& kind) {
  std::vector<double> after_answer;
  for (auto _ : state) {
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
    if (!granted_before) state.SkipWithError("nothing was granted");
    kind.mend();
    state.SetIterationTime(std::max(0.0, Microseconds(last - request)) / 1e6);
    after_answer.push_back(std::max(0.0, Microseconds(last - answer)));
  }
  if (after_answer.empty()) return;
  std::sort(after_answer.begin(), after_answer.end());
  state.counters["answered_us"] = after_answer[after_answer.size() / 2];
  state.counters["worst_us"] = after_answer.back();
}

void Register(const char* name, int iterations, Change kind) {
  benchmark::RegisterBenchmark(name,
                               [kind](benchmark::State& state) { MeasureLastGrant(state, kind); })
      ->UseManualTime()
      ->Iterations(iterations);
}

void RegisterAll(std::string& token, std::string& name) {
  const auto log_on = [&token] { token = device->LogOn(); };
  const auto authorize = [&token] { return device->Client().Authorize(token, kPath); };
  Register("Logout", 50, {log_on, authorize, [&token] { device->Proxy().Logout(token); }});
  Register("Invalidate", 50, {log_on, authorize, [] { device->Proxy().Invalidate("alice"); }});
  Register("RuleChange", 50,
           {log_on, authorize, [] { device->SetRule(kAdminsRule); },
            [] { device->SetRule(kViewersRule); }});
  Register("AccountDeleted", 50,
           {[&name] {
              // A new one each time: the refusal of the one before is remembered as well.
              static int users = 0;
              name = "user" + std::to_string(++users);
              device->AddUser(name, 8);
            },
            [&name] {
              std::string answer;
              return device->Client().Authenticate(name, "secret", "", answer);
            },
            [&name] { device->Proxy().DeleteUsers({name}); }});
  Register("DaemonKilled", 10,
           {log_on, authorize, [] { device->Kill(); }, [] { device->Start(); }});
}

}  // namespace

int main(int argc, char** argv) {
  device = std::make_unique<Device>();
  device->SetRule(kViewersRule);
  std::string token;
  std::string name;
  RegisterAll(token, name);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  device.reset();
}

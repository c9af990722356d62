// Authorize over the bus, direct and through a broker, by 1 and 4 threads of one client, beside an
// empty sd-bus call on the same transport, one of the same shape, the same bytes over a bare socket
// pair, and the question that would otherwise be put to polkit. Servers are processes of their own.
#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/support/counted_bytes.h"
#include "benchmarks/support/pairs.h"
#include "benchmarks/support/plain_call_server.h"
#include "benchmarks/support/polkit_daemon.h"
#include "benchmarks/support/socket_pair_server.h"
#include "benchmarks/support/team.h"
#include "support/daemon_process.h"
#include "support/private_dbus_daemon.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"

namespace {

using benchmarks::Batch;
using benchmarks::CountedBytes;
using benchmarks::Placement;
using benchmarks::PlainCallServer;
using benchmarks::PolkitDaemon;
using benchmarks::SocketPairServer;
using benchmarks::Team;
using tevra::interfaces::ISecurityProvider;

constexpr int kThreads = 4;

// A daemon with an administrator and a viewer, a proxy to it, and a token of the viewer's.
class Service {
 public:
  explicit Service(const std::string& broker) {
    if (!broker.empty()) {
      daemon_.Set("MsgBus", "transport", "broker");
      daemon_.Set("MsgBus", "address", broker);
    }
    if (daemon_.LaunchAndAwaitReady() != support::DaemonProcess::Start::kReady) {
      throw std::runtime_error("the daemon did not start: " + daemon_.Log());
    }
    tevra::core::PlatformConfig::LoadFrom(daemon_.ConfigFile());
    bus_ = std::make_unique<tevra::msgbus::MsgBus>();
    proxy_.reset(ISecurityProvider::CreateClient(bus_.get()));
    proxy_->AddUsers(
        "{\"Users\":[{\"Name\":\"admin\",\"Password\":\"adminpass\",\"Group\":1},"
        "{\"Name\":\"alice\",\"Password\":\"secret\",\"Group\":8}]}");
    token_ = proxy_->Authenticate(false, "YWxpY2U=", "c2VjcmV0");
    if (!Authorize()) throw std::runtime_error("refused");
    const CountedBytes before = CountedBytes::Now();
    Authorize();
    const CountedBytes after = CountedBytes::Now();
    call_bytes_ = after.sent - before.sent;
    reply_bytes_ = after.received - before.received;
    if (call_bytes_ < 16 || reply_bytes_ < 5 || call_bytes_ > SocketPairServer::kLongest) {
      throw std::runtime_error("the call was not counted");
    }
  }

  bool Authorize() const { return proxy_->Authorize(token_, "/jpeg/1"); }
  pid_t Pid() { return daemon_.Running().Pid(); }
  size_t CallBytes() const { return call_bytes_; }
  size_t ReplyBytes() const { return reply_bytes_; }

 private:
  support::DaemonProcess daemon_;
  std::unique_ptr<tevra::msgbus::MsgBus> bus_;
  std::unique_ptr<ISecurityProvider> proxy_;
  std::string token_;
  size_t call_bytes_ = 0;
  size_t reply_bytes_ = 0;
};

// Calls by so many threads, each of which has whatever `call` keeps for its index.
using Call = std::function<bool(int index)>;
Batch CallsBy(int threads, Call call) {
  const auto failed = std::make_shared<std::atomic<bool>>(false);
  const auto team = std::make_shared<Team>(threads, [=](int index, int count) {
    for (int i = 0; i < count; ++i) {
      if (!call(index)) *failed = true;
    }
  });
  return [=](int count) {
    const double cost = team->Run(count);
    if (*failed) throw std::runtime_error("a call failed");
    return cost;
  };
}

// One sd-bus connection for each thread.
class Connections {
 public:
  Connections(const PlainCallServer& server, int count) {
    for (int i = 0; i < count; ++i) buses_.push_back(server.Connect());
  }
  ~Connections() {
    for (sd_bus* bus : buses_) sd_bus_flush_close_unref(bus);
  }
  Connections(const Connections&) = delete;
  Connections& operator=(const Connections&) = delete;
  sd_bus* Of(int index) const { return buses_[static_cast<size_t>(index)]; }

 private:
  std::vector<sd_bus*> buses_;
};

Call EmptyCalls(const PlainCallServer& server) {
  const auto connections = std::make_shared<Connections>(server, kThreads);
  return [&server, connections](int index) { return server.CallEmpty(connections->Of(index)); };
}
Call CallsOfTheShape(const PlainCallServer& server) {
  const auto connections = std::make_shared<Connections>(server, kThreads);
  return [&server, connections](int index) {
    return server.CallWithTexts(connections->Of(index), "AAAAAAAA", "/jpeg/1");
  };
}
Call BareCalls(const SocketPairServer& server, const Service& service) {
  return [&](int index) {
    return server.Call(static_cast<size_t>(index), service.CallBytes(), service.ReplyBytes());
  };
}

// The row in every place that its number of threads and this machine allow.
void Register(const std::string& name, const std::string& floor, std::optional<double> budget,
              const std::vector<pid_t>& servers, const Call& operation,
              const std::function<Call()>& make_floor) {
  const auto add = [=](int threads, Placement placement) {
    benchmarks::RegisterPair(
        {.name = name + ", " + std::to_string(threads) +
                 (threads > 1 ? " threads, " : " thread, ") + benchmarks::Name(placement),
         .floor = floor,
         .budget = budget,
         .placement = placement,
         .servers = servers},
        [=] { return std::pair(CallsBy(threads, operation), CallsBy(threads, make_floor())); });
  };
  if (benchmarks::CanPlace(Placement::kTwoCores)) {
    add(1, Placement::kOneCore);
    add(1, Placement::kTwoCores);
  } else {
    add(1, Placement::kAnyCore);
  }
  add(kThreads, Placement::kAnyCore);
}

void RegisterBroker(Service& service, const PlainCallServer& server, PolkitDaemon* polkit) {
  const Call authorize = [&service](int) { return service.Authorize(); };
  // The broker stays where the kernel puts it.
  const auto add = [&](const std::string& floor, int threads, const std::function<Call()>& make) {
    benchmarks::RegisterPair(
        {.name = "broker, " + std::to_string(threads) +
                 (threads > 1 ? " threads, any core" : " thread, any core"),
         .floor = floor,
         .placement = Placement::kAnyCore},
        [=] { return std::pair(CallsBy(threads, authorize), CallsBy(threads, make())); });
  };
  for (const int threads : {1, kThreads}) {
    add("an empty sd-bus call", threads, [&] { return EmptyCalls(server); });
    add("the same texts, plain sd-bus", threads, [&] { return CallsOfTheShape(server); });
  }
  if (polkit != nullptr) {
    add("polkit CheckAuthorization", 1,
        [polkit] { return [polkit](int) { return polkit->CheckAuthorization(); }; });
  }
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  const auto broker = support::PrivateDbusDaemon::Start();
  // Processes first: what follows makes threads.
  const SocketPairServer pairs(kThreads);
  const PlainCallServer direct_floor("");
  const auto polkit = PolkitDaemon::Start();
  std::unique_ptr<PlainCallServer> broker_floor;
  if (broker) broker_floor = std::make_unique<PlainCallServer>(broker->address());

  Service direct("");
  const Call authorize = [&direct](int) { return direct.Authorize(); };
  const std::vector<pid_t> servers = {direct.Pid(), direct_floor.Pid(), pairs.Pid()};
  Register("authorize", "an empty sd-bus call", 1.0, servers, authorize,
           [&] { return EmptyCalls(direct_floor); });
  Register("authorize", "the same bytes over a bare socket pair", 2.2, servers, authorize,
           [&] { return BareCalls(pairs, direct); });
  Register("authorize", "the same texts, plain sd-bus", {}, servers, authorize,
           [&] { return CallsOfTheShape(direct_floor); });
  std::unique_ptr<Service> brokered;
  if (broker) {
    brokered = std::make_unique<Service>(broker->address());
    RegisterBroker(*brokered, *broker_floor, polkit.get());
  }
  return benchmarks::RunAll(argc, argv);
}

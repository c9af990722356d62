// Authorize over the bus, direct and through a broker, by 1 and 4 threads of one client, beside an
// empty sd-bus call on the same transport and one of the same shape. Daemon, broker and plain-call
// servers are processes of their own.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "benchmarks/support/plain_call_server.h"
#include "support/daemon_process.h"
#include "support/private_dbus_daemon.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"

namespace {

using benchmarks::PlainCallServer;
using tevra::interfaces::ISecurityProvider;

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
    if (!proxy_->Authorize(token_, "/jpeg/1")) throw std::runtime_error("refused");
  }

  bool Authorize() { return proxy_->Authorize(token_, "/jpeg/1"); }

 private:
  support::DaemonProcess daemon_;
  std::unique_ptr<tevra::msgbus::MsgBus> bus_;
  std::unique_ptr<ISecurityProvider> proxy_;
  std::string token_;
};

void MeasureAuthorize(benchmark::State& state, Service* service) {
  for (auto _ : state) {
    if (!service->Authorize()) state.SkipWithError("refused");
  }
}

void MeasureEmptyCall(benchmark::State& state, const PlainCallServer* server) {
  sd_bus* bus = server->Connect();
  for (auto _ : state) {
    if (!server->CallEmpty(bus)) state.SkipWithError("no reply");
  }
  sd_bus_flush_close_unref(bus);
}

void MeasureCallOfTheShape(benchmark::State& state, const PlainCallServer* server) {
  sd_bus* bus = server->Connect();
  const std::string token = "AAAAAAAA";
  const std::string path = "/jpeg/1";
  for (auto _ : state) {
    if (!server->CallWithTexts(bus, token, path)) state.SkipWithError("no reply");
  }
  sd_bus_flush_close_unref(bus);
}

template <typename Measure, typename Peer>
void Register(const char* name, Measure measure, Peer* peer) {
  benchmark::RegisterBenchmark(name, measure, peer)->Threads(1)->Threads(4)->UseRealTime();
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  const auto broker = support::PrivateDbusDaemon::Start();
  // Processes first: what follows makes threads.
  const PlainCallServer direct_floor("");
  std::unique_ptr<PlainCallServer> broker_floor;
  if (broker) broker_floor = std::make_unique<PlainCallServer>(broker->address());

  Service direct("");
  Register("FloorEmptyCallDirect", MeasureEmptyCall, &direct_floor);
  Register("PeerPlainCallDirect", MeasureCallOfTheShape, &direct_floor);
  Register("AuthorizeDirect", MeasureAuthorize, &direct);
  std::unique_ptr<Service> brokered;
  if (broker) {
    brokered = std::make_unique<Service>(broker->address());
    Register("FloorEmptyCallBroker", MeasureEmptyCall, broker_floor.get());
    Register("PeerPlainCallBroker", MeasureCallOfTheShape, broker_floor.get());
    Register("AuthorizeBroker", MeasureAuthorize, brokered.get());
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}

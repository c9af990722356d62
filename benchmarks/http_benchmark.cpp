// One file over HTTP for one digest each, on keep-alive connections with rising counts: the gateway
// with its daemon beside servers that check digests themselves. Driven by one thread on the same
// machine, which costs every server the same. With the gateway's session cookie there is no digest
// after the first; that is what a browser does.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "benchmarks/support/digest_load.h"
#include "benchmarks/support/digest_peers.h"
#include "support/gateway_process.h"

namespace {

using benchmarks::DigestLoad;
using benchmarks::DigestPeer;
using benchmarks::DigestSite;
using benchmarks::DigestTask;
using benchmarks::MicrohttpdServer;

void Get(benchmark::State& state, const DigestTask& task) {
  try {
    DigestLoad load(task, static_cast<size_t>(state.range(0)));
    for (auto _ : state) load.GetOne();
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}

void Register(const char* name, const DigestTask& task) {
  benchmark::RegisterBenchmark(name, [task](benchmark::State& state) { Get(state, task); })
      ->Arg(1)
      ->Arg(16)
      ->UseRealTime();
}

int Run() {
  const DigestSite site;
  support::GatewayFixture fixture;
  if (!fixture.Start({"--site-dir", site.Root()})) {
    fprintf(stderr, "no gateway: %s%s\n", fixture.device.Log().c_str(),
            fixture.gateway.Log().c_str());
    return 1;
  }
  DigestTask task = site.TaskAt(fixture.gateway.HostAndPort());
  Register("GatewayDigest", task);
  task.with_cookie = true;
  Register("GatewayCookie", task);
  const auto microhttpd = MicrohttpdServer::Start(site, "/proc/self/exe");
  Register("PeerMicrohttpd", site.TaskAt(microhttpd->Host()));
  const std::unique_ptr<DigestPeer> lighttpd = benchmarks::StartLighttpd(site);
  if (lighttpd != nullptr) Register("PeerLighttpd", site.TaskAt(lighttpd->Host()));
  const std::unique_ptr<DigestPeer> apache = benchmarks::StartApache(site);
  if (apache != nullptr) Register("PeerApache", site.TaskAt(apache->Host()));
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == MicrohttpdServer::kVerb) {
    return MicrohttpdServer::Serve(argv + 2);
  }
  benchmark::Initialize(&argc, argv);
  try {
    return Run();
  } catch (const std::exception& e) {
    fprintf(stderr, "%s\n", e.what());
    return 1;
  }
}

// One file over HTTP for one digest each, on keep-alive connections with rising counts: the gateway
// with its daemon beside servers that check digests themselves. Driven by one thread on the same
// machine, which costs every server the same. With the gateway's session cookie there is no digest
// after the first; that is what a browser does.
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "benchmarks/support/digest_load.h"
#include "benchmarks/support/digest_peers.h"
#include "benchmarks/support/pairs.h"
#include "support/gateway_process.h"

namespace {

using benchmarks::Batch;
using benchmarks::DigestLoad;
using benchmarks::DigestPeer;
using benchmarks::DigestSite;
using benchmarks::DigestTask;
using benchmarks::MicrohttpdServer;
using benchmarks::Placement;
using benchmarks::RegisterPair;
using benchmarks::Timed;

Batch Requests(const DigestTask& task, size_t connections) {
  const auto load = std::make_shared<DigestLoad>(task, connections);
  return Timed([load] { load->GetOne(); });
}

// Batches are long, because the last request of each connection is answered while the other side's
// batch begins.
void Register(const std::string& name, const DigestTask& task, const std::string& floor,
              const DigestTask& peer) {
  for (const size_t connections : {1, 16}) {
    RegisterPair(
        {.name = name + ", " + std::to_string(connections) +
                 (connections > 1 ? " connections" : " connection"),
         .floor = floor,
         .placement = Placement::kAnyCore,
         .count = 512,
         .pairs = 15},
        [=] { return std::pair(Requests(task, connections), Requests(peer, connections)); });
  }
}

int Run(int argc, char** argv) {
  const DigestSite site;
  support::GatewayFixture fixture;
  if (!fixture.Start({"--site-dir", site.Root()})) {
    fprintf(stderr, "no gateway: %s%s\n", fixture.device.Log().c_str(),
            fixture.gateway.Log().c_str());
    return 1;
  }
  const DigestTask digest = site.TaskAt(fixture.gateway.HostAndPort());
  DigestTask cookie = digest;
  cookie.with_cookie = true;
  const auto microhttpd = MicrohttpdServer::Start(site, "/proc/self/exe");
  const DigestTask microhttpd_task = site.TaskAt(microhttpd->Host());
  const char kMicrohttpd[] = "libmicrohttpd's own digest check";
  Register("file for a digest", digest, kMicrohttpd, microhttpd_task);
  Register("file for a cookie", cookie, kMicrohttpd, microhttpd_task);
  const std::unique_ptr<DigestPeer> lighttpd = benchmarks::StartLighttpd(site);
  if (lighttpd != nullptr) {
    Register("file for a digest", digest, "lighttpd, mod_auth", site.TaskAt(lighttpd->Host()));
  }
  const std::unique_ptr<DigestPeer> apache = benchmarks::StartApache(site);
  if (apache != nullptr) {
    Register("file for a digest", digest, "Apache, mod_auth_digest", site.TaskAt(apache->Host()));
  }
  return benchmarks::RunAll(argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == MicrohttpdServer::kVerb) {
    return MicrohttpdServer::Serve(argv + 2);
  }
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    fprintf(stderr, "%s\n", e.what());
    return 1;
  }
}

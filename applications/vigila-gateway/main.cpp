#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "vigila-gateway/auth/circuit_breaker.h"
#include "vigila-gateway/auth/client_auth_service.h"
#include "vigila-gateway/auth/metered_auth_service.h"
#include "vigila-gateway/gateway.h"
#include "vigila-gateway/http/http_server.h"
#include "vigila-gateway/ops/metrics_page.h"

namespace {

using namespace vigila::gateway;

constexpr char kConfigurationVariable[] = "TEVRA_PLATFORM_CONFIG";

// The numbers are vigilad's.
enum ExitCode { kStopped = 0, kUsage = 2, kFailed = 70, kBadConfiguration = 78 };

struct BadConfiguration : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Options {
  std::string config;
  std::string site_directory;
  HttpServer::Options server;
  bool with_metrics = false;
  HttpServer::Options metrics;
  Gateway::Options gateway;
};

void AddAddresses(CLI::App& app, Options& options) {
  app.add_option("--listen", options.server.address, "Address to serve")
      ->type_name("ADDRESS")
      ->capture_default_str();
  app.add_option("--port", options.server.port, "Port to serve; 0 takes any free one")
      ->capture_default_str();
  app.add_option("--metrics-listen", options.metrics.address, "Address of the counters")
      ->type_name("ADDRESS")
      ->capture_default_str();
  app.add_option_function<uint16_t>(
      "--metrics-port",
      [&options](const uint16_t& port) {
        options.with_metrics = true;
        options.metrics.port = port;
      },
      "Port of the counters at /metrics; 0 takes any free one; none without this option");
}

void AddBehaviour(CLI::App& app, Options& options) {
  app.add_option("--config", options.config,
                 std::string("Platform configuration (default: $") + kConfigurationVariable +
                     ", else the system's)")
      ->type_name("FILE");
  app.add_option("--site-dir", options.site_directory, "Serve the files of this directory as well")
      ->type_name("DIRECTORY");
  app.add_option("--device-name", options.gateway.device_name, "Name that the web service tells")
      ->capture_default_str();
  app.add_flag("--basic", options.gateway.basic, "Accept Basic logons: only with TLS in front");
  app.add_flag("--secure-cookie,--tls-in-front", options.gateway.secure_cookie,
               "TLS is in front: the session cookie is for TLS only");
  app.add_option(
         "--trusted-proxy", options.gateway.trusted_proxies,
         "Address of a proxy that may ask at /auth, besides this machine's, and that may have "
         "any number of connections")
      ->type_name("ADDRESS");
}

void AddLimits(CLI::App& app, Options& options) {
  app.add_option("--threads", options.server.threads, "Threads that serve")
      ->check(CLI::Range(1u, 64u))
      ->capture_default_str();
  app.add_option("--max-connections", options.server.connections, "Connections at once")
      ->check(CLI::Range(1u, 16384u))
      ->capture_default_str();
  app.add_option("--max-connections-per-address", options.server.connections_per_address,
                 "Connections at once of one address, but for the trusted proxies; 0 for no limit "
                 "of its own")
      ->capture_default_str();
  app.add_option("--max-body", options.server.body_bytes, "Bytes of a request's body")
      ->capture_default_str();
  app.add_option_function<unsigned>(
         "--idle-timeout",
         [&options](const unsigned& seconds) {
           options.server.idle = std::chrono::seconds(seconds);
         },
         "Seconds after which an idle connection is closed (default 30)")
      ->check(CLI::Range(1u, 3600u));
  app.add_option_function<unsigned>(
         "--request-timeout",
         [&options](const unsigned& seconds) {
           options.server.arrival = std::chrono::seconds(seconds);
         },
         "Seconds for a request's header to arrive, and for its body after that (default 30)")
      ->check(CLI::Range(1u, 3600u));
  app.add_option("--throttle-burst", options.gateway.rate_limit.burst,
                 "Failed logons of one address before it must wait")
      ->check(CLI::Range(1u, 10000u))
      ->capture_default_str();
}

// Served by threads that must not see the signals: blocked before any of them starts.
sigset_t BlockStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return signals;
}

// What keeps a client from being made is the platform's configuration.
std::unique_ptr<ClientAuthService> MakeClient() {
  try {
    return std::make_unique<ClientAuthService>();
  } catch (const std::exception& e) {
    throw BadConfiguration(e.what());
  }
}

void Serve(Options options) {
  const sigset_t stop = BlockStopSignals();
  Metrics metrics;
  const std::unique_ptr<ClientAuthService> client = MakeClient();
  CircuitBreaker breaker(*client, {});
  MeteredAuthService service(breaker, metrics);
  std::unique_ptr<StaticFiles> files;
  if (!options.site_directory.empty()) {
    files = std::make_unique<StaticFiles>(options.site_directory);
  }
  Gateway gateway(service, metrics, std::move(files), options.gateway,
                  [](const AccessRecord& record) { WriteAccessLine(STDERR_FILENO, record); });
  options.server.proxies = options.gateway.trusted_proxies;
  const HttpServer server(gateway, options.server);
  std::printf("Serving %s\n", server.Url().c_str());
  MetricsPage metrics_page(metrics, service);
  std::optional<HttpServer> metrics_server;
  if (options.with_metrics) {
    options.metrics.threads = 1;
    options.metrics.connections = 16;
    metrics_server.emplace(metrics_page, options.metrics);
    std::printf("Counters at %s/metrics\n", metrics_server->Url().c_str());
  }
  std::fflush(stdout);
  int received = 0;
  sigwait(&stop, &received);
}

ExitCode Fail(ExitCode code, const std::exception& e) {
  std::fprintf(stderr, "vigila-gateway: %s\n", e.what());
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("HTTP front of the device's authentication and authorization service.",
               "vigila-gateway");
  Options options;
  AddAddresses(app, options);
  AddBehaviour(app, options);
  AddLimits(app, options);
  app.set_version_flag("--version", std::string("vigila-gateway ") + VIGILA_VERSION);
  app.footer(
      "Exit status: 0 stopped by SIGTERM or SIGINT, 2 wrong usage, 78 wrong platform "
      "configuration, 70 any other failure.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? kStopped : kUsage;
  }
  if (!options.config.empty()) setenv(kConfigurationVariable, options.config.c_str(), 1);
  try {
    Serve(options);
    return kStopped;
  } catch (const std::invalid_argument& e) {
    return Fail(kUsage, e);
  } catch (const BadConfiguration& e) {
    return Fail(kBadConfiguration, e);
  } catch (const std::exception& e) {
    return Fail(kFailed, e);
  }
}

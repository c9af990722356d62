#ifndef VIGILA_GATEWAY_HTTP_HTTP_SERVER_H_
#define VIGILA_GATEWAY_HTTP_HTTP_SERVER_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vigila-gateway/http/connection_bound.h"
#include "vigila-gateway/http/http_message.h"
#include "vigila-gateway/http/request_deadlines.h"
#include "vigila-gateway/http/trusted_proxies.h"

struct MHD_Daemon;

namespace vigila::gateway {

// How much of the body arrived.
enum class Body { kComplete, kTooLarge };

// One request on its way: fed with its body as it arrives, then asked for the answer. Used by one
// thread at a time; destroyed without an answer when the client goes away.
class HttpExchange {
 public:
  virtual ~HttpExchange() = default;
  virtual void Receive(std::string_view /*chunk*/) {}
  virtual HttpResponse Answer(Body body) = 0;
};

// Whatever stands behind a server. Called by several threads at once.
class HttpApplication {
 public:
  virtual ~HttpApplication() = default;
  virtual std::unique_ptr<HttpExchange> Open(HttpRequest request) = 0;
};

// Serves HTTP/1.1 with a pool of threads of its own, from construction to destruction. An exception
// out of an exchange is answered with 500.
class HttpServer final {
 public:
  struct Options {
    std::string address = "127.0.0.1";
    uint16_t port = 0;  // 0: any
    unsigned threads = 4;
    unsigned connections = 256;
    unsigned connections_per_address = 64;  // 0: no limit of its own
    // Through these come the connections of many: only the limit of all holds for them.
    std::vector<std::string> proxies;
    size_t header_bytes = 32 * 1024;  // memory of one connection
    size_t body_bytes = 1024 * 1024;
    std::chrono::seconds idle{30};
    // Within which the header of a request must have arrived, and its body after that.
    std::chrono::seconds arrival{30};
  };

  // Throws std::invalid_argument for a text that is no address, and std::runtime_error when the
  // address cannot be served. The application must outlive the server.
  HttpServer(HttpApplication& application, const Options& options);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  uint16_t Port() const;
  // "http://127.0.0.1:8080"
  std::string Url() const;

 private:
  friend class HttpServerCallbacks;

  HttpApplication& application_;
  const Options options_;
  const TrustedProxies proxies_;
  ConnectionBound bound_;
  RequestDeadlines deadlines_;
  MHD_Daemon* daemon_ = nullptr;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_HTTP_HTTP_SERVER_H_

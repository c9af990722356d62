#include "vigila-gateway/http/http_server.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <utility>

namespace vigila::gateway {
namespace {

// What the library keeps for us between its calls about one request.
struct PendingRequest {
  std::string target;
  std::unique_ptr<HttpExchange> exchange;
  size_t received = 0;
  bool too_large = false;
};

// A body that goes on this many times beyond its limit is not waited for.
constexpr size_t kPatience = 16;

std::string AddressText(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address == nullptr) return text;
  if (address->sa_family == AF_INET) {
    const auto* four = reinterpret_cast<const sockaddr_in*>(address);
    inet_ntop(AF_INET, &four->sin_addr, text, sizeof(text));
  } else if (address->sa_family == AF_INET6) {
    const auto* six = reinterpret_cast<const sockaddr_in6*>(address);
    inet_ntop(AF_INET6, &six->sin6_addr, text, sizeof(text));
  }
  return text;
}

std::string PeerAddress(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  return info == nullptr ? std::string() : AddressText(info->client_addr);
}

MHD_Result CollectHeader(void* headers, MHD_ValueKind, const char* key, size_t key_size,
                         const char* value, size_t value_size) {
  const std::string name(key, key_size);
  static_cast<HttpHeaders*>(headers)->emplace_back(
      name, value == nullptr ? std::string() : std::string(value, value_size));
  // May hold a password; the library does not wipe its memory when it gives it back.
  if (value != nullptr && EqualIgnoringCase(name, "Authorization")) {
    OPENSSL_cleanse(const_cast<char*>(value), value_size);
  }
  return MHD_YES;
}

HttpHeaders CollectHeaders(MHD_Connection* connection) {
  HttpHeaders headers;
  const int count = MHD_get_connection_values_n(connection, MHD_HEADER_KIND, nullptr, nullptr);
  // Growing would leave copies of short values behind.
  headers.reserve(static_cast<size_t>(std::max(count, 0)));
  MHD_get_connection_values_n(connection, MHD_HEADER_KIND, &CollectHeader, &headers);
  return headers;
}

int SocketOf(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  return info == nullptr ? -1 : info->connect_fd;
}

// The declared length; a header that is no number is for the library to refuse.
unsigned long long DeclaredLength(const HttpRequest& request) {
  const std::string text(request.Only("Content-Length"));
  return std::strtoull(text.c_str(), nullptr, 10);
}

MHD_Result Queue(MHD_Connection* connection, const HttpResponse& answer) {
  MHD_Response* response = MHD_create_response_from_buffer(
      answer.body.size(), const_cast<char*>(answer.body.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  for (const auto& [name, value] : answer.headers) {
    MHD_add_response_header(response, name.c_str(), value.c_str());
  }
  const MHD_Result queued =
      MHD_queue_response(connection, static_cast<unsigned>(answer.status), response);
  MHD_destroy_response(response);
  return queued;
}

HttpResponse AnswerOf(HttpExchange& exchange, Body body) {
  try {
    return exchange.Answer(body);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "vigila-gateway: a request failed: %s\n", e.what());
    return TextResponse(500, "Internal error.");
  }
}

}  // namespace

class HttpServerCallbacks final {
 public:
  // The only place where the target is seen whole and undecoded.
  static void* OnTarget(void*, const char* target, MHD_Connection*) {
    auto pending = std::make_unique<PendingRequest>();
    pending->target = target;
    return pending.release();
  }
  // The path is decoded once, by request_path: not here as well.
  static size_t LeaveEscapes(void*, MHD_Connection*, char* text) { return std::strlen(text); }

  // Asked before the connection becomes one.
  static MHD_Result OnAccept(void* self, const sockaddr* address, socklen_t) {
    const auto* server = static_cast<HttpServer*>(self);
    const std::string peer = AddressText(address);
    return server->proxies_.Names(peer) || server->bound_.Admits(peer) ? MHD_YES : MHD_NO;
  }

  static void OnConnection(void* self, MHD_Connection* connection, void**,
                           MHD_ConnectionNotificationCode code) {
    auto* server = static_cast<HttpServer*>(self);
    const int socket = SocketOf(connection);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
      server->bound_.Opened(PeerAddress(connection));
      server->deadlines_.Await(socket, server->options_.arrival);
    } else {
      server->deadlines_.Forget(socket);
      server->bound_.Closed(PeerAddress(connection));
    }
  }

  static void OnCompleted(void* self, MHD_Connection* connection, void** state,
                          MHD_RequestTerminationCode) {
    delete static_cast<PendingRequest*>(*state);
    *state = nullptr;
    // The next request may begin at the very end of the idle time.
    auto* server = static_cast<HttpServer*>(self);
    server->deadlines_.Await(SocketOf(connection),
                             server->options_.idle + server->options_.arrival);
  }

  static MHD_Result OnRequest(void* self, MHD_Connection* connection, const char*,
                              const char* method, const char*, const char* data, size_t* size,
                              void** state) {
    auto* server = static_cast<HttpServer*>(self);
    auto* pending = static_cast<PendingRequest*>(*state);
    if (pending == nullptr) return MHD_NO;
    if (pending->exchange == nullptr) return Begin(*server, connection, method, *pending);
    if (*size != 0) return Receive(*server, *pending, data, size);
    server->deadlines_.Forget(SocketOf(connection));
    const Body body = pending->too_large ? Body::kTooLarge : Body::kComplete;
    return Queue(connection, AnswerOf(*pending->exchange, body));
  }

 private:
  static MHD_Result Begin(HttpServer& server, MHD_Connection* connection, const char* method,
                          PendingRequest& pending) {
    HttpRequest request;
    request.method = method;
    request.target = pending.target;
    request.peer = PeerAddress(connection);
    request.headers = CollectHeaders(connection);
    server.deadlines_.Await(SocketOf(connection), server.options_.arrival);
    const bool too_large = DeclaredLength(request) > server.options_.body_bytes;
    pending.exchange = server.application_.Open(std::move(request));
    // Answered before the body comes; the library then closes the connection.
    if (too_large) return Queue(connection, AnswerOf(*pending.exchange, Body::kTooLarge));
    return MHD_YES;
  }
  static MHD_Result Receive(HttpServer& server, PendingRequest& pending, const char* data,
                            size_t* size) {
    pending.received += *size;
    pending.too_large = pending.received > server.options_.body_bytes;
    if (pending.received / kPatience > server.options_.body_bytes) return MHD_NO;
    if (!pending.too_large) pending.exchange->Receive(std::string_view(data, *size));
    *size = 0;
    return MHD_YES;
  }
};

namespace {

sockaddr_storage SocketAddress(const HttpServer::Options& options) {
  sockaddr_storage storage = {};
  auto* four = reinterpret_cast<sockaddr_in*>(&storage);
  auto* six = reinterpret_cast<sockaddr_in6*>(&storage);
  if (inet_pton(AF_INET, options.address.c_str(), &four->sin_addr) == 1) {
    four->sin_family = AF_INET;
    four->sin_port = htons(options.port);
  } else if (inet_pton(AF_INET6, options.address.c_str(), &six->sin6_addr) == 1) {
    six->sin6_family = AF_INET6;
    six->sin6_port = htons(options.port);
  } else {
    throw std::invalid_argument("not an address: " + options.address);
  }
  return storage;
}

unsigned DaemonFlags(sa_family_t family) {
  const unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ERROR_LOG;
  return family == AF_INET6 ? flags | MHD_USE_IPv6 : flags;
}

}  // namespace

HttpServer::HttpServer(HttpApplication& application, const Options& options)
    : application_(application),
      options_(options),
      proxies_(options.proxies),
      bound_(options.connections_per_address) {
  sockaddr_storage address = SocketAddress(options);
  daemon_ = MHD_start_daemon(
      DaemonFlags(address.ss_family), options.port, &HttpServerCallbacks::OnAccept, this,
      &HttpServerCallbacks::OnRequest, this, MHD_OPTION_SOCK_ADDR, &address,
      MHD_OPTION_THREAD_POOL_SIZE, options.threads > 1 ? options.threads : 0u,
      MHD_OPTION_CONNECTION_LIMIT, options.connections, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
      options.header_bytes, MHD_OPTION_CONNECTION_TIMEOUT,
      static_cast<unsigned>(options.idle.count()), MHD_OPTION_STRICT_FOR_CLIENT, 1,
      MHD_OPTION_URI_LOG_CALLBACK, &HttpServerCallbacks::OnTarget, nullptr,
      MHD_OPTION_UNESCAPE_CALLBACK, &HttpServerCallbacks::LeaveEscapes, nullptr,
      MHD_OPTION_NOTIFY_COMPLETED, &HttpServerCallbacks::OnCompleted, this,
      MHD_OPTION_NOTIFY_CONNECTION, &HttpServerCallbacks::OnConnection, this, MHD_OPTION_END);
  if (daemon_ == nullptr) {
    throw std::runtime_error("cannot serve " + options.address + " port " +
                             std::to_string(options.port) + ": " + std::strerror(errno));
  }
}

HttpServer::~HttpServer() {
  MHD_stop_daemon(daemon_);
}

uint16_t HttpServer::Port() const {
  const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT);
  return info == nullptr ? options_.port : info->port;
}

std::string HttpServer::Url() const {
  const bool six = options_.address.find(':') != std::string::npos;
  return "http://" + (six ? "[" + options_.address + "]" : options_.address) + ":" +
         std::to_string(Port());
}

}  // namespace vigila::gateway

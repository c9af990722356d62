#ifndef VIGILA_GATEWAY_HTTP_TRUSTED_PROXIES_H_
#define VIGILA_GATEWAY_HTTP_TRUSTED_PROXIES_H_

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "vigila-gateway/http/http_message.h"

namespace vigila::gateway {

// Whose word about the original request is taken: this machine's, and that of the addresses given.
class TrustedProxies final {
 public:
  // Throws std::invalid_argument for a text that is no address.
  explicit TrustedProxies(const std::vector<std::string>& addresses);

  bool Trusts(std::string_view peer) const;
  // Is it one of the addresses given?
  bool Names(std::string_view peer) const;
  // Where the request came from: what a trusted proxy says in X-Real-IP or at the end of
  // X-Forwarded-For, else the other end of the connection.
  std::string SourceOf(const HttpRequest& request) const;

 private:
  std::set<std::string, std::less<>> addresses_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_HTTP_TRUSTED_PROXIES_H_

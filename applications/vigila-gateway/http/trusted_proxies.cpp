#include "vigila-gateway/http/trusted_proxies.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <stdexcept>

#include "tevra/core/trimmed.h"

namespace vigila::gateway {
namespace {

// One spelling per address; empty when the text is none.
std::string Canonical(std::string_view text) {
  const std::string address(text);
  in6_addr bytes = {};
  char canonical[INET6_ADDRSTRLEN] = {};
  if (inet_pton(AF_INET, address.c_str(), &bytes) == 1) {
    inet_ntop(AF_INET, &bytes, canonical, sizeof(canonical));
  } else if (inet_pton(AF_INET6, address.c_str(), &bytes) == 1) {
    if (IN6_IS_ADDR_V4MAPPED(&bytes)) {
      inet_ntop(AF_INET, bytes.s6_addr + 12, canonical, sizeof(canonical));
    } else {
      inet_ntop(AF_INET6, &bytes, canonical, sizeof(canonical));
    }
  }
  return canonical;
}

std::string_view LastOfList(std::string_view list) {
  const size_t comma = list.rfind(',');
  if (comma != std::string_view::npos) list.remove_prefix(comma + 1);
  return tevra::core::Trimmed(list);
}

}  // namespace

TrustedProxies::TrustedProxies(const std::vector<std::string>& addresses) {
  for (const std::string& address : addresses) {
    const std::string canonical = Canonical(address);
    if (canonical.empty()) throw std::invalid_argument("not an address: " + address);
    addresses_.insert(canonical);
  }
}

bool TrustedProxies::Trusts(std::string_view peer) const {
  const std::string address = Canonical(peer);
  return address.starts_with("127.") || address == "::1" || addresses_.count(address) != 0;
}

bool TrustedProxies::Names(std::string_view peer) const {
  return addresses_.count(Canonical(peer)) != 0;
}

std::string TrustedProxies::SourceOf(const HttpRequest& request) const {
  if (!Trusts(request.peer)) return request.peer;
  std::string said = Canonical(request.Only("X-Real-IP"));
  // The last one was added by the proxy itself; those before it are anybody's claim.
  if (said.empty()) said = Canonical(LastOfList(request.Only("X-Forwarded-For")));
  return said.empty() ? request.peer : said;
}

}  // namespace vigila::gateway

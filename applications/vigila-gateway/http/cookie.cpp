#include "vigila-gateway/http/cookie.h"

#include <algorithm>
#include <cstddef>

#include "tevra/core/trimmed.h"
#include "vigila/contract/result_tokens.h"

namespace vigila::gateway {
namespace {

using tevra::core::Trimmed;

constexpr size_t kMaximumCookieBytes = 8 * 1024;

std::string_view Unquote(std::string_view text) {
  const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
  return quoted ? text.substr(1, text.size() - 2) : text;
}

// Two different tokens leave none: somebody planted one of them.
void TakePair(std::string_view pair, SessionCookie& cookie) {
  const size_t equals = pair.find('=');
  if (equals == std::string_view::npos || Trimmed(pair.substr(0, equals)) != kSessionCookie) return;
  const std::string_view value = Unquote(Trimmed(pair.substr(equals + 1)));
  const bool first = !cookie.present;
  cookie.present = true;
  if (first && contract::IsSessionToken(value)) {
    cookie.token = value;
  } else if (cookie.token != value) {
    cookie.token.clear();
  }
}

std::string Attributes(bool secure) {
  return std::string("; Path=/; HttpOnly; SameSite=Strict") + (secure ? "; Secure" : "");
}

}  // namespace

SessionCookie FindSessionCookie(const std::vector<std::string_view>& cookie_headers) {
  SessionCookie cookie;
  for (const std::string_view header : cookie_headers) {
    std::string_view rest = header.substr(0, kMaximumCookieBytes);
    while (!rest.empty()) {
      const size_t end = std::min(rest.find(';'), rest.size());
      TakePair(rest.substr(0, end), cookie);
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
  }
  return cookie;
}

std::string SetSessionCookie(std::string_view token, bool secure) {
  return std::string(kSessionCookie) + "=" + std::string(token) + Attributes(secure);
}

std::string ClearSessionCookie(bool secure) {
  return std::string(kSessionCookie) + "=; Max-Age=0" + Attributes(secure);
}

}  // namespace vigila::gateway

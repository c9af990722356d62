#ifndef VIGILA_GATEWAY_HTTP_COOKIE_H_
#define VIGILA_GATEWAY_HTTP_COOKIE_H_

#include <string>
#include <string_view>
#include <vector>

namespace vigila::gateway {

inline constexpr char kSessionCookie[] = "vigila_session";

// The session token among the request's cookies.
struct SessionCookie {
  bool present = false;  // a cookie of the name came, whatever it holds
  std::string token;     // empty when what came is no token, or different ones came
};

// Reads the values of the request's Cookie headers; at most 8 KiB of each is looked at.
SessionCookie FindSessionCookie(const std::vector<std::string_view>& cookie_headers);

// Values of Set-Cookie. The cookie lasts as long as the browser and goes to no other site.
std::string SetSessionCookie(std::string_view token, bool secure);
std::string ClearSessionCookie(bool secure);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_HTTP_COOKIE_H_

#ifndef VIGILA_GATEWAY_SESSION_TOKEN_H_
#define VIGILA_GATEWAY_SESSION_TOKEN_H_

#include <string_view>

namespace vigila::gateway {

// What a caller without a session is asked for under.
inline constexpr char kNoToken[] = "NO_TOKEN";

// Is the text the token of a session? The service's other answers ("NO_TOKEN", "_EXPIRED",
// "DISABLED", "NODIGEST") are not, whether or not the client library counts them as a success.
bool IsSessionToken(std::string_view text);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_SESSION_TOKEN_H_

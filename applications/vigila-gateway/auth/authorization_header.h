#ifndef VIGILA_GATEWAY_AUTH_AUTHORIZATION_HEADER_H_
#define VIGILA_GATEWAY_AUTH_AUTHORIZATION_HEADER_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>

#include "tevra/core/secret_text.h"

namespace vigila::gateway {

constexpr size_t kMaximumAuthorizationBytes = 8 * 1024;

// A client's answer to a digest challenge. Which form it used (session or plain, with or without
// qop) is what it says here, whatever the challenge offered.
struct DigestAnswer {
  std::string username;
  std::string nonce;
  std::string uri;
  bool sess = false;
  std::string qop;     // "auth", or empty for the form without qop
  std::string cnonce;  // empty without qop, but for the session form
  std::string nc;      // empty without qop
  std::string response;
};

struct BasicAnswer {
  std::string username;
  tevra::core::SecretText password;
};

enum class UnusableAnswer {
  kMalformed,  // the client cannot mean this
  kNotOurs,    // well-formed, but of a scheme, realm, algorithm or protection that is not offered
};

using AuthorizationHeader = std::variant<UnusableAnswer, DigestAnswer, BasicAnswer>;

// Reads the value of an Authorization header: parameters in any order and case, quoted or bare,
// nothing twice, no longer than kMaximumAuthorizationBytes.
AuthorizationHeader ParseAuthorization(std::string_view value);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_AUTHORIZATION_HEADER_H_

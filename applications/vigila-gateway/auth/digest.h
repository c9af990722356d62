#ifndef VIGILA_GATEWAY_AUTH_DIGEST_H_
#define VIGILA_GATEWAY_AUTH_DIGEST_H_

#include <string>
#include <string_view>

namespace vigila::gateway {

// HA2 of a request without body protection: MD5 of "METHOD:URI" in lower-case hexadecimal, the uri
// as the client signed it. Throws std::runtime_error when OpenSSL offers no MD5.
std::string RequestDigest(std::string_view method, std::string_view uri);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_DIGEST_H_

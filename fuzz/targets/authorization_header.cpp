// Whatever is read as an answer to a challenge is complete and within its bounds.
#include "vigila-gateway/auth/authorization_header.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vigila::gateway;
  const AuthorizationHeader header =
      ParseAuthorization({reinterpret_cast<const char*>(data), size});
  if (const auto* basic = std::get_if<BasicAnswer>(&header)) {
    if (basic->username.find(':') != std::string::npos) std::abort();
    if (basic->username.size() + basic->password.Text().size() >= size) std::abort();
  }
  const auto* digest = std::get_if<DigestAnswer>(&header);
  if (digest == nullptr) return 0;
  if (size > kMaximumAuthorizationBytes) std::abort();
  if (digest->nonce.empty() || digest->uri.empty() || digest->response.size() != 32) std::abort();
  const bool with_qop = digest->qop == "auth";
  if (!with_qop && !digest->qop.empty()) std::abort();
  if (digest->nc.size() != (with_qop ? 8u : 0u)) std::abort();
  if ((with_qop || digest->sess) == digest->cnonce.empty()) std::abort();
  return 0;
}

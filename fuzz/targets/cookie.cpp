// A cookie gives a session's token or nothing, and the token it gives stands in the header.
#include "vigila-gateway/http/cookie.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "vigila/contract/result_tokens.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vigila::gateway;
  const std::string_view header(reinterpret_cast<const char*>(data), size);
  const SessionCookie cookie = FindSessionCookie({header});
  if (cookie.token.empty()) return 0;
  if (!cookie.present || !vigila::contract::IsSessionToken(cookie.token)) std::abort();
  if (header.find(cookie.token) == std::string_view::npos) std::abort();
  return 0;
}

#include "vigila-gateway/auth/digest.h"

#include <openssl/evp.h>

#include <stdexcept>

#include "tevra/core/hexadecimal.h"

namespace vigila::gateway {

std::string RequestDigest(std::string_view method, std::string_view uri) {
  const std::string text = std::string(method) + ":" + std::string(uri);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr) != 1) {
    throw std::runtime_error("OpenSSL offers no MD5");
  }
  return tevra::core::Hexadecimal({reinterpret_cast<const char*>(digest), length});
}

}  // namespace vigila::gateway

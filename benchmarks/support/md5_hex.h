#ifndef BENCHMARKS_SUPPORT_MD5_HEX_H_
#define BENCHMARKS_SUPPORT_MD5_HEX_H_

#include <openssl/evp.h>

#include <string>
#include <string_view>

namespace benchmarks {

inline std::string Md5Hex(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
  std::string hex;
  for (unsigned i = 0; i < length; ++i) {
    hex.push_back("0123456789abcdef"[digest[i] >> 4]);
    hex.push_back("0123456789abcdef"[digest[i] & 15]);
  }
  return hex;
}

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_MD5_HEX_H_

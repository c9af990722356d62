#ifndef SUPPORT_LIBRARY_WITHOUT_RSA_H_
#define SUPPORT_LIBRARY_WITHOUT_RSA_H_

#include <openssl/evp.h>

namespace support {

// While it lives libcrypto finds no RSA: no provider has the name it is told to look for. What is
// in use already goes on working.
class LibraryWithoutRsa final {
 public:
  LibraryWithoutRsa() { EVP_set_default_properties(nullptr, "provider=none"); }
  ~LibraryWithoutRsa() { EVP_set_default_properties(nullptr, ""); }
  LibraryWithoutRsa(const LibraryWithoutRsa&) = delete;
  LibraryWithoutRsa& operator=(const LibraryWithoutRsa&) = delete;
};

}  // namespace support

#endif  // SUPPORT_LIBRARY_WITHOUT_RSA_H_

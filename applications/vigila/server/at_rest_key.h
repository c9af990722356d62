#ifndef VIGILA_SERVER_AT_REST_KEY_H_
#define VIGILA_SERVER_AT_REST_KEY_H_

#include <openssl/evp.h>

#include <memory>
#include <string>

#include "tevra/core/secret_text.h"
#include "vigila/server/key_file.h"

namespace vigila::server {

// The RSA key pair behind the at-rest cipher, as its file holds it: big-endian 64-bit words, a
// header (magic, bits, primes, padding), then eight numbers of bits / 64 words each, filled up with
// zero words in front. Failures throw tevra::osa::Exception that names the file.
//
// Reading the file and using the key are apart: to look whether its numbers make a key brings 220
// KiB of libcrypto into memory, the first use of a key 2 MiB.
class AtRestKey final {
 public:
  struct Free {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  };
  using Pointer = std::unique_ptr<EVP_PKEY, Free>;

  using Kind = KeyFile::Kind;

  static constexpr int kDefaultBits = 3072;
  static constexpr int kMinimumBits = 2048;
  static constexpr int kMaximumBits = 4096;

  // Null when there is no such file; throws when it is there and cannot be trusted, or has not the
  // size and the header of a key.
  static std::unique_ptr<const AtRestKey> Load(const std::string& path, Kind kind);
  // Makes a key and its file, durable when the call returns. False, with nothing changed, when
  // there is a file of that name. Throws for a size that is no multiple of 64 or out of bounds.
  static bool Create(const std::string& path, int bits);

  const std::string& Path() const { return path_; }
  // The key in the library's form. Throws when its numbers make no key, and when the library takes
  // no RSA key.
  Pointer Build() const;

 private:
  AtRestKey(const std::string& path, std::unique_ptr<tevra::core::SecretText> bytes);

  const std::string path_;
  const std::unique_ptr<const tevra::core::SecretText> bytes_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_AT_REST_KEY_H_

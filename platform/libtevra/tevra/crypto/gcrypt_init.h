#ifndef TEVRA_CRYPTO_GCRYPT_INIT_H_
#define TEVRA_CRYPTO_GCRYPT_INIT_H_

namespace tevra::crypto {

// Makes libgcrypt usable, once per process; later calls cost one atomic load. Any thread. `mode` 1
// is the only mode: no secure memory. Throws tevra::osa::Exception when the library is unusable.
class GCryptInit {
 public:
  static void InitializeGcrypt(int mode);
};

}  // namespace tevra::crypto

#endif  // TEVRA_CRYPTO_GCRYPT_INIT_H_

#include "tevra/crypto/gcrypt_init.h"

#include <gcrypt.h>

#include "tevra/osa/exception.h"

namespace tevra::crypto {
namespace {

// Nothing here asks for randomness: once its generator runs, libgcrypt's digests cost ten times as
// much.
bool Initialize() {
  if (gcry_check_version(GCRYPT_VERSION) == nullptr) {
    throw osa::Exception("libgcrypt is older than %s", GCRYPT_VERSION);
  }
  if (gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) == 0) {
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
  }
  return true;
}

}  // namespace

void GCryptInit::InitializeGcrypt(int mode) {
  if (mode != 1) throw osa::Exception("no libgcrypt mode %d", mode);
  static const bool kInitialized = Initialize();
  static_cast<void>(kInitialized);
}

}  // namespace tevra::crypto

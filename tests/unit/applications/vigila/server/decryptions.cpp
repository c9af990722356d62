#include "decryptions.h"

#include <dlfcn.h>
#include <openssl/evp.h>

#include <atomic>
#include <cstdlib>

namespace {

std::atomic<int> count = 0;
enum Mode { kWorking, kFailing, kAborting };
std::atomic<Mode> mode = kWorking;

}  // namespace

// Stands in front of the library's own.
extern "C" int EVP_PKEY_decrypt(EVP_PKEY_CTX* context, unsigned char* clear, size_t* clear_size,
                                const unsigned char* data, size_t size) {
  static const auto forward =
      reinterpret_cast<decltype(&EVP_PKEY_decrypt)>(dlsym(RTLD_NEXT, "EVP_PKEY_decrypt"));
  ++count;
  if (mode == kAborting) abort();
  return mode == kFailing ? 0 : forward(context, clear, clear_size, data, size);
}

namespace vigila::server {

int DecryptionCount() {
  return count;
}

FailingDecryptions::FailingDecryptions(How how) {
  mode = how == kWithAnAbort ? kAborting : kFailing;
}

FailingDecryptions::~FailingDecryptions() {
  mode = kWorking;
}

}  // namespace vigila::server

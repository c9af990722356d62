#include "tevra/crypto/gcrypt_digest.h"

#include <gcrypt.h>

#include "tevra/crypto/gcrypt_init.h"
#include "tevra/osa/exception.h"

namespace tevra::crypto {
namespace {

int LibraryAlgorithm(GCryptDigest::Algorithm algorithm) {
  switch (algorithm) {
    case GCryptDigest::kMd5:
      return GCRY_MD_MD5;
    case GCryptDigest::kSha1:
      return GCRY_MD_SHA1;
    case GCryptDigest::kSha256:
      return GCRY_MD_SHA256;
  }
  throw osa::Exception("no digest algorithm %d", static_cast<int>(algorithm));
}

gcry_md_hd_t Handle(void* handle) {
  return static_cast<gcry_md_hd_t>(handle);
}

}  // namespace

GCryptDigest::GCryptDigest(Algorithm algorithm) : handle_(nullptr), algorithm_(algorithm) {
  GCryptInit::InitializeGcrypt(1);
  gcry_md_hd_t handle = nullptr;
  const gcry_error_t error = gcry_md_open(&handle, LibraryAlgorithm(algorithm), 0);
  if (error != 0) throw osa::Exception("libgcrypt: no digest: %s", gcry_strerror(error));
  handle_ = handle;
}

GCryptDigest::~GCryptDigest() {
  gcry_md_close(Handle(handle_));
}

void GCryptDigest::Update(const void* data, size_t size) {
  if (finished_) throw osa::Exception("the digest has been read; nothing can be added");
  if (size > 0) gcry_md_write(Handle(handle_), data, size);
}

const unsigned char* GCryptDigest::Digest() {
  finished_ = true;
  const unsigned char* digest = gcry_md_read(Handle(handle_), LibraryAlgorithm(algorithm_));
  if (digest == nullptr) throw osa::Exception("libgcrypt: the digest cannot be read");
  return digest;
}

size_t GCryptDigest::DigestSize() const {
  return gcry_md_get_algo_dlen(LibraryAlgorithm(algorithm_));
}

MD5::MD5(const std::string& text) {
  GCryptInit::InitializeGcrypt(1);
  gcry_md_hash_buffer(GCRY_MD_MD5, digest_, text.data(), text.size());
}

}  // namespace tevra::crypto

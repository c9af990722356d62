#ifndef TEVRA_CRYPTO_GCRYPT_DIGEST_H_
#define TEVRA_CRYPTO_GCRYPT_DIGEST_H_

#include <cstddef>
#include <string>

namespace tevra::crypto {

// A running digest over bytes. Not synchronised; one object, one digest.
class GCryptDigest {
 public:
  enum Algorithm { kMd5, kSha1, kSha256 };

  explicit GCryptDigest(Algorithm algorithm);
  ~GCryptDigest();
  GCryptDigest(const GCryptDigest&) = delete;
  GCryptDigest& operator=(const GCryptDigest&) = delete;

  void Update(const void* data, size_t size);
  // The digest bytes so far (16, 20 or 32), borrowed until the next call or destruction. Ends the
  // digest: Update after it throws.
  const unsigned char* Digest();
  size_t DigestSize() const;

 private:
  void* handle_;
  const Algorithm algorithm_;
  bool finished_ = false;
};

// MD5 of a text in one call, without a handle: the cost of the hash and nothing else.
class MD5 {
 public:
  static constexpr size_t kSize = 16;
  explicit MD5(const std::string& text);
  const unsigned char* Digest() const { return digest_; }

 private:
  unsigned char digest_[kSize];
};

}  // namespace tevra::crypto

#endif  // TEVRA_CRYPTO_GCRYPT_DIGEST_H_

#include "vigila/server/at_rest_key.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <array>
#include <cstdint>
#include <iterator>
#include <utility>

#include "tevra/osa/exception.h"

namespace vigila::server {

namespace {

using tevra::core::SecretText;
using tevra::osa::Exception;

constexpr uint64_t kMagic = 0x564947494c414b31;
constexpr uint64_t kPrimes = 2;
constexpr uint64_t kPadding = RSA_PKCS1_OAEP_PADDING;
constexpr size_t kWordSize = 8;
constexpr size_t kHeaderWords = 4;
constexpr int kWordBits = 64;

// In the order of the file.
enum Number { kModulus, kPublic, kPrivate, kFactor1, kFactor2, kExponent1, kExponent2, kInverse };
constexpr const char* kNames[] = {OSSL_PKEY_PARAM_RSA_N,         OSSL_PKEY_PARAM_RSA_E,
                                  OSSL_PKEY_PARAM_RSA_D,         OSSL_PKEY_PARAM_RSA_FACTOR1,
                                  OSSL_PKEY_PARAM_RSA_FACTOR2,   OSSL_PKEY_PARAM_RSA_EXPONENT1,
                                  OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1};
constexpr size_t kNumbers = std::size(kNames);

struct FreeNumber {
  void operator()(BIGNUM* number) const { BN_clear_free(number); }
};
using NumberPointer = std::unique_ptr<BIGNUM, FreeNumber>;
using Numbers = std::array<NumberPointer, kNumbers>;

[[noreturn]] void ThrowLibraryError(const std::string& path, const char* what) {
  char reason[256] = "unknown reason";
  if (const unsigned long code = ERR_get_error(); code != 0) {
    ERR_error_string_n(code, reason, sizeof reason);
  }
  ERR_clear_error();
  throw Exception("key file %s: %s: %s", path.c_str(), what, reason);
}

constexpr size_t WordsOf(int bits) {
  return static_cast<size_t>(bits / kWordBits);
}

constexpr size_t FileSize(int bits) {
  return kWordSize * (kHeaderWords + kNumbers * WordsOf(bits));
}

uint64_t ReadWord(const unsigned char* bytes) {
  uint64_t word = 0;
  for (size_t i = 0; i < kWordSize; ++i) word = word << 8 | bytes[i];
  return word;
}

void WriteWord(uint64_t word, unsigned char* bytes) {
  for (size_t i = kWordSize; i-- > 0; word >>= 8) bytes[i] = static_cast<unsigned char>(word);
}

// The zero words that fill a number up to the common width carry nothing and are left out.
NumberPointer BuildNumber(const unsigned char* bytes, size_t words) {
  SecretText buffer(words * kWordSize);
  size_t length = 0;
  for (size_t i = 0; i < words; ++i) {
    const uint64_t word = ReadWord(bytes + i * kWordSize);
    if (word == 0) continue;
    WriteWord(word, buffer.Data() + length);
    length += kWordSize;
  }
  // Secure numbers, so that the library wipes the parameters made of them.
  return NumberPointer(BN_bin2bn(buffer.Data(), static_cast<int>(length), BN_secure_new()));
}

// The size that the header names; throws when it is not the header of a file of this size.
int ReadHeader(const std::string& path, const SecretText& bytes) {
  const uint64_t bits = ReadWord(bytes.Data() + kWordSize);
  if (ReadWord(bytes.Data()) != kMagic || bits < AtRestKey::kMinimumBits ||
      bits > AtRestKey::kMaximumBits || bits % kWordBits != 0 ||
      bytes.Size() != FileSize(static_cast<int>(bits)) ||
      ReadWord(bytes.Data() + 2 * kWordSize) != kPrimes ||
      ReadWord(bytes.Data() + 3 * kWordSize) != kPadding) {
    throw Exception("key file %s: damaged or not a key file", path.c_str());
  }
  return static_cast<int>(bits);
}

Numbers ReadNumbers(const std::string& path, const SecretText& bytes) {
  const size_t words = WordsOf(ReadHeader(path, bytes));
  Numbers numbers;
  for (size_t i = 0; i < kNumbers; ++i) {
    numbers[i] = BuildNumber(bytes.Data() + (kHeaderWords + i * words) * kWordSize, words);
    if (numbers[i] == nullptr) ThrowLibraryError(path, "the key cannot be built");
  }
  return numbers;
}

// A key whose numbers do not belong together would encrypt what it can never decrypt again. Costs
// no primality test: a bit that flipped in any of the eight numbers breaks one of these equations.
bool AreConsistent(const Numbers& key, int bits) {
  const std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)> context(BN_CTX_secure_new(), BN_CTX_free);
  const NumberPointer value(BN_secure_new()), less_one(BN_secure_new());
  if (context == nullptr || value == nullptr || less_one == nullptr) return false;
  if (BN_num_bits(key[kModulus].get()) != bits || !BN_is_odd(key[kPublic].get())) return false;
  if (BN_mul(value.get(), key[kFactor1].get(), key[kFactor2].get(), context.get()) != 1 ||
      BN_cmp(value.get(), key[kModulus].get()) != 0) {
    return false;
  }
  if (BN_mod_mul(value.get(), key[kInverse].get(), key[kFactor2].get(), key[kFactor1].get(),
                 context.get()) != 1 ||
      !BN_is_one(value.get())) {
    return false;
  }
  const auto is_exponent = [&](Number factor, Number exponent) {
    return BN_copy(less_one.get(), key[factor].get()) != nullptr &&
           BN_sub_word(less_one.get(), 1) == 1 &&
           BN_mod(value.get(), key[kPrivate].get(), less_one.get(), context.get()) == 1 &&
           BN_cmp(value.get(), key[exponent].get()) == 0 &&
           BN_mod_mul(value.get(), key[exponent].get(), key[kPublic].get(), less_one.get(),
                      context.get()) == 1 &&
           BN_is_one(value.get());
  };
  return is_exponent(kFactor1, kExponent1) && is_exponent(kFactor2, kExponent2);
}

AtRestKey::Pointer BuildKey(const Numbers& numbers) {
  const std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> builder(
      OSSL_PARAM_BLD_new(), OSSL_PARAM_BLD_free);
  for (size_t i = 0; i < kNumbers; ++i) {
    if (OSSL_PARAM_BLD_push_BN(builder.get(), kNames[i], numbers[i].get()) != 1) return nullptr;
  }
  const std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> parameters(
      OSSL_PARAM_BLD_to_param(builder.get()), OSSL_PARAM_free);
  const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
      EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* key = nullptr;
  if (parameters == nullptr || context == nullptr || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_KEYPAIR, parameters.get()) != 1) {
    return nullptr;
  }
  return AtRestKey::Pointer(key);
}

AtRestKey::Pointer GenerateKey(const std::string& path, int bits) {
  AtRestKey::Pointer key(EVP_RSA_gen(static_cast<unsigned>(bits)));
  if (key == nullptr) ThrowLibraryError(path, "no key could be made");
  return key;
}

// False when a number holds a zero word behind its first other word: reading leaves zero words out,
// so such a key (one in 2^57) could not be read back.
bool WriteNumber(const BIGNUM* number, size_t words, unsigned char* bytes) {
  if (BN_bn2binpad(number, bytes, static_cast<int>(words * kWordSize)) < 0) return false;
  bool started = false;
  for (size_t i = 0; i < words; ++i) {
    const bool zero = ReadWord(bytes + i * kWordSize) == 0;
    if (started && zero) return false;
    started = started || !zero;
  }
  return started;
}

bool WriteKey(const EVP_PKEY* key, int bits, SecretText& bytes) {
  const uint64_t header[kHeaderWords] = {kMagic, static_cast<uint64_t>(bits), kPrimes, kPadding};
  for (size_t i = 0; i < kHeaderWords; ++i) WriteWord(header[i], bytes.Data() + i * kWordSize);
  const size_t words = WordsOf(bits);
  for (size_t i = 0; i < kNumbers; ++i) {
    BIGNUM* raw = nullptr;
    if (EVP_PKEY_get_bn_param(key, kNames[i], &raw) != 1) return false;
    const NumberPointer number(raw);
    unsigned char* place = bytes.Data() + (kHeaderWords + i * words) * kWordSize;
    if (!WriteNumber(number.get(), words, place)) return false;
  }
  return true;
}

}  // namespace

AtRestKey::AtRestKey(const std::string& path, std::unique_ptr<SecretText> bytes)
    : path_(path), bytes_(std::move(bytes)) {}

std::unique_ptr<const AtRestKey> AtRestKey::Load(const std::string& path, Kind kind) {
  std::unique_ptr<SecretText> bytes = KeyFile::Read(path, kind, FileSize(AtRestKey::kMinimumBits),
                                                    FileSize(AtRestKey::kMaximumBits));
  if (bytes == nullptr) return nullptr;
  ReadHeader(path, *bytes);
  return std::unique_ptr<const AtRestKey>(new AtRestKey(path, std::move(bytes)));
}

AtRestKey::Pointer AtRestKey::Build() const {
  const Numbers numbers = ReadNumbers(path_, *bytes_);
  if (!AreConsistent(numbers, ReadHeader(path_, *bytes_))) {
    ERR_clear_error();
    throw Exception("key file %s: damaged, its numbers make no key", path_.c_str());
  }
  Pointer key = BuildKey(numbers);
  if (key == nullptr) ThrowLibraryError(path_, "the key cannot be built");
  return key;
}

bool AtRestKey::Create(const std::string& path, int bits) {
  if (bits < kMinimumBits || bits > kMaximumBits || bits % kWordBits != 0) {
    throw Exception("key file %s: %d bits is no key's size", path.c_str(), bits);
  }
  if (!KeyFile::CanBeMade(path)) return false;
  // Before there is a file: this takes long enough for a process to be killed in it.
  SecretText bytes(FileSize(bits));
  while (!WriteKey(GenerateKey(path, bits).get(), bits, bytes)) {
  }
  return KeyFile::Make(path, bytes);
}

}  // namespace vigila::server

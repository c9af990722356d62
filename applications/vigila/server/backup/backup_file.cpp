#include "vigila/server/backup/backup_file.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <memory>

#include "tevra/osa/exception.h"
#include "vigila/contract/result_codes.h"

namespace vigila::server {
namespace {

using tevra::core::SecretText;

constexpr std::string_view kMagic = "VIGILABK";
constexpr size_t kVersionAt = 8;
constexpr size_t kCostAt = 12;
constexpr size_t kSaltAt = 16;
constexpr size_t kNonceAt = 32;
constexpr size_t kSaltBytes = kNonceAt - kSaltAt;
constexpr size_t kNonceBytes = 12;
constexpr size_t kHeaderBytes = kNonceAt + kNonceBytes;
constexpr size_t kTagBytes = 16;
constexpr size_t kSumBytes = 32;
constexpr size_t kKeyBytes = 32;
constexpr size_t kSmallest = kHeaderBytes + kTagBytes + kSumBytes;

struct Cost {
  unsigned log_n;
  unsigned r;
  unsigned p;
};

constexpr Cost kCost = {15, 8, 1};

// Others would take more memory than a device has, or more time than its administrator.
bool IsBearable(const Cost& cost) {
  return cost.log_n >= 14 && cost.log_n <= 16 && cost.r == 8 && cost.p >= 1 && cost.p <= 4;
}

template <auto function>
struct Free {
  template <typename T>
  void operator()(T* object) const {
    function(object);
  }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Free<EVP_CIPHER_CTX_free>>;

[[noreturn]] void Fail(const char* what) {
  ERR_clear_error();
  throw tevra::osa::Exception("backup: %s", what);
}

const unsigned char* Bytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

unsigned char* Bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

unsigned ByteAt(std::string_view file, size_t index) {
  return static_cast<unsigned char>(file[index]);
}

Cost CostOf(std::string_view file) {
  return {ByteAt(file, kCostAt), ByteAt(file, kCostAt + 1), ByteAt(file, kCostAt + 2)};
}

uint32_t VersionOf(std::string_view file) {
  uint32_t version = 0;
  for (size_t i = 0; i < 4; ++i) version = version << 8 | ByteAt(file, kVersionAt + i);
  return version;
}

std::string MakeHeader() {
  std::string header(kMagic);
  for (unsigned shift = 32; shift > 0; shift -= 8) {
    header += static_cast<char>(BackupFile::kVersion >> (shift - 8) & 0xff);
  }
  for (const unsigned number : {kCost.log_n, kCost.r, kCost.p, 0u}) {
    header += static_cast<char>(number);
  }
  header.resize(kHeaderBytes);
  if (RAND_bytes(Bytes(header) + kSaltAt, static_cast<int>(kSaltBytes + kNonceBytes)) != 1) {
    Fail("no random bytes");
  }
  return header;
}

std::string CheckSum(std::string_view text) {
  std::string sum(kSumBytes, '\0');
  if (EVP_Digest(text.data(), text.size(), Bytes(sum), nullptr, EVP_sha256(), nullptr) != 1) {
    Fail("no check sum");
  }
  return sum;
}

SecretText DeriveKey(std::string_view header, std::string_view passphrase) {
  const Cost cost = CostOf(header);
  uint64_t n = uint64_t{1} << cost.log_n;
  uint32_t r = cost.r;
  uint32_t p = cost.p;
  // A little more than 128 bytes for each of N + p blocks of r.
  uint64_t memory = 128 * r * (n + p + 2);
  const auto octets = [](const char* name, std::string_view text) {
    return OSSL_PARAM_construct_octet_string(name, const_cast<char*>(text.data()), text.size());
  };
  const OSSL_PARAM parameters[] = {
      octets(OSSL_KDF_PARAM_PASSWORD, passphrase),
      octets(OSSL_KDF_PARAM_SALT, header.substr(kSaltAt, kSaltBytes)),
      OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_N, &n),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_R, &r),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_P, &p),
      OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_MAXMEM, &memory),
      OSSL_PARAM_construct_end()};
  const std::unique_ptr<EVP_KDF, Free<EVP_KDF_free>> function(
      EVP_KDF_fetch(nullptr, "SCRYPT", nullptr));
  const std::unique_ptr<EVP_KDF_CTX, Free<EVP_KDF_CTX_free>> context(
      EVP_KDF_CTX_new(function.get()));
  SecretText key(kKeyBytes);
  if (context == nullptr || EVP_KDF_derive(context.get(), key.Data(), kKeyBytes, parameters) != 1) {
    Fail("no key can be derived from the passphrase");
  }
  return key;
}

// The header is vouched for by the tag as well.
CipherContext StartCipher(std::string_view header, std::string_view passphrase, bool encrypt) {
  const SecretText key = DeriveKey(header, passphrase);
  CipherContext context(EVP_CIPHER_CTX_new());
  int length = 0;
  if (context == nullptr ||
      EVP_CipherInit_ex2(context.get(), EVP_aes_256_gcm(), key.Data(), Bytes(header) + kNonceAt,
                         encrypt ? 1 : 0, nullptr) != 1 ||
      EVP_CipherUpdate(context.get(), nullptr, &length, Bytes(header),
                       static_cast<int>(header.size())) != 1) {
    Fail("the library does not encrypt");
  }
  return context;
}

}  // namespace

std::string BackupFile::Seal(std::string_view content, std::string_view passphrase) {
  std::string file = MakeHeader();
  const CipherContext context = StartCipher(file, passphrase, true);
  file.resize(kHeaderBytes + content.size() + kTagBytes);
  unsigned char* const sealed = Bytes(file) + kHeaderBytes;
  int length = 0;
  int rest = 0;
  if (EVP_CipherUpdate(context.get(), sealed, &length, Bytes(content),
                       static_cast<int>(content.size())) != 1 ||
      EVP_CipherFinal_ex(context.get(), sealed + length, &rest) != 1 ||
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, kTagBytes,
                          sealed + content.size()) != 1) {
    Fail("the library does not encrypt");
  }
  return file + CheckSum(file);
}

int BackupFile::Inspect(std::string_view file) {
  if (file.size() < kSmallest || file.size() > kMaximumBytes || !file.starts_with(kMagic)) {
    return contract::kBackupDamaged;
  }
  const size_t summed = file.size() - kSumBytes;
  if (CheckSum(file.substr(0, summed)) != file.substr(summed)) return contract::kBackupDamaged;
  const uint32_t version = VersionOf(file);
  if (version > kVersion) return contract::kBackupNewer;
  const bool whole =
      version == kVersion && IsBearable(CostOf(file)) && ByteAt(file, kCostAt + 3) == 0;
  return whole ? int{contract::kApplied} : int{contract::kBackupDamaged};
}

std::optional<SecretText> BackupFile::Open(std::string_view file, std::string_view passphrase) {
  const std::string_view header = file.substr(0, kHeaderBytes);
  const std::string_view sealed = file.substr(kHeaderBytes, file.size() - kSmallest);
  std::string tag(file.substr(kHeaderBytes + sealed.size(), kTagBytes));
  const CipherContext context = StartCipher(header, passphrase, false);
  SecretText content(sealed.size());
  int length = 0;
  int rest = 0;
  if (EVP_CipherUpdate(context.get(), content.Data(), &length, Bytes(sealed),
                       static_cast<int>(sealed.size())) != 1 ||
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, kTagBytes, tag.data()) != 1 ||
      EVP_CipherFinal_ex(context.get(), content.Data() + length, &rest) != 1) {
    ERR_clear_error();
    return std::nullopt;
  }
  return content;
}

}  // namespace vigila::server

#include "vigila/server/at_rest_key.h"

#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "tevra/osa/exception.h"
#include "vigila/server/at_rest_cipher.h"
#include "vigila/server/secret_text.h"

namespace vigila::server {

namespace {

using tevra::osa::Exception;

constexpr uint64_t kMagic = 0x564947494c414b31;
constexpr uint64_t kPrimes = 2;
constexpr uint64_t kPadding = RSA_PKCS1_OAEP_PADDING;
constexpr size_t kWordSize = 8;
constexpr size_t kHeaderWords = 4;
constexpr int kWordBits = 64;
// Behind a key file's name while it is being written; not a name that a backup would have.
constexpr std::string_view kUnfinished = ".unfinished-";
constexpr std::string_view kPlaceholder = "XXXXXX";

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

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return fd_; }

 private:
  const int fd_;
};

[[noreturn]] void ThrowSystemError(const std::string& path, const char* what) {
  throw Exception("key file %s: %s: %s", path.c_str(), what, std::strerror(errno));
}

[[noreturn]] void ThrowLibraryError(const std::string& path, const char* what) {
  char reason[256] = "unknown reason";
  if (const unsigned long code = ERR_get_error(); code != 0) {
    ERR_error_string_n(code, reason, sizeof reason);
  }
  ERR_clear_error();
  throw Exception("key file %s: %s: %s", path.c_str(), what, reason);
}

constexpr size_t FileSize(int bits) {
  return kWordSize * (kHeaderWords + kNumbers * static_cast<size_t>(bits / kWordBits));
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

void CheckAccess(const std::string& path, AtRestKey::Kind kind, const struct stat& status) {
  if (!S_ISREG(status.st_mode)) {
    throw Exception("key file %s: not a regular file", path.c_str());
  }
  if (status.st_uid != geteuid() && status.st_uid != 0) {
    throw Exception("key file %s: owned by another user (uid %u)", path.c_str(), status.st_uid);
  }
  const mode_t forbidden = kind == AtRestKey::Kind::kCredential ? 0027 : 0077;
  if ((status.st_mode & forbidden) != 0) {
    throw Exception("key file %s: open to others (mode %04o), must be 0600", path.c_str(),
                    status.st_mode & 07777);
  }
}

// Null when there is no such file.
std::unique_ptr<SecretText> ReadFile(const std::string& path, AtRestKey::Kind kind) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (file.Get() < 0) {
    if (errno == ENOENT) return nullptr;
    ThrowSystemError(path, "cannot be opened");
  }
  struct stat status {};
  if (fstat(file.Get(), &status) != 0) ThrowSystemError(path, "cannot be examined");
  CheckAccess(path, kind, status);
  if (status.st_size < static_cast<off_t>(FileSize(AtRestCipher::kMinimumBits)) ||
      status.st_size > static_cast<off_t>(FileSize(AtRestCipher::kMaximumBits))) {
    throw Exception("key file %s: damaged, %lld bytes is no key's size", path.c_str(),
                    static_cast<long long>(status.st_size));
  }
  auto bytes = std::make_unique<SecretText>(static_cast<size_t>(status.st_size));
  size_t length = 0;
  while (length < bytes->Size()) {
    const ssize_t n = read(file.Get(), bytes->Data() + length, bytes->Size() - length);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ThrowSystemError(path, "cannot be read");
    if (n == 0) throw Exception("key file %s: damaged, it ends early", path.c_str());
    length += static_cast<size_t>(n);
  }
  return bytes;
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
  const size_t words = static_cast<size_t>(bits / kWordBits);
  for (size_t i = 0; i < kNumbers; ++i) {
    BIGNUM* raw = nullptr;
    if (EVP_PKEY_get_bn_param(key, kNames[i], &raw) != 1) return false;
    const NumberPointer number(raw);
    unsigned char* place = bytes.Data() + (kHeaderWords + i * words) * kWordSize;
    if (!WriteNumber(number.get(), words, place)) return false;
  }
  return true;
}

void WriteAll(const std::string& path, int fd, const SecretText& bytes) {
  size_t length = 0;
  while (length < bytes.Size()) {
    const ssize_t n = write(fd, bytes.Data() + length, bytes.Size() - length);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ThrowSystemError(path, "cannot be written");
    length += static_cast<size_t>(n);
  }
  if (fsync(fd) != 0) ThrowSystemError(path, "cannot be written");
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// Removes what processes left that were killed while they wrote this file. One that still writes
// holds the lock.
void RemoveRemains(const std::string& path) {
  const std::string prefix =
      std::filesystem::path(path).filename().string() + std::string(kUnfinished);
  std::error_code failure;  // then it stays; nothing ever reads it
  std::filesystem::directory_iterator entry(DirectoryOf(path), failure);
  for (; !failure && entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
    const std::string name = entry->path().filename().string();
    if (!name.starts_with(prefix) || name.size() != prefix.size() + kPlaceholder.size()) continue;
    const std::string remains = entry->path().string();
    const Descriptor file(open(remains.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.Get() >= 0 && flock(file.Get(), LOCK_EX | LOCK_NB) == 0) unlink(remains.c_str());
  }
}

// A file under a name of its own, removed again unless it was moved into place.
class UnfinishedFile final {
 public:
  explicit UnfinishedFile(const std::string& path)
      : path_(path),
        name_(path + std::string(kUnfinished) + std::string(kPlaceholder)),
        file_(mkostemp(name_.data(), O_CLOEXEC)) {
    if (file_.Get() < 0) ThrowSystemError(path_, "cannot be made");
    // Should somebody take it for remains before this, the move fails.
    flock(file_.Get(), LOCK_EX | LOCK_NB);
  }
  ~UnfinishedFile() {
    if (!moved_) unlink(name_.c_str());
  }
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;

  int Get() const { return file_.Get(); }

  // Never over an existing file: two processes that both found none must end with one key. File
  // systems that cannot promise that get a plain rename. False when there is a file.
  bool MoveIntoPlace() {
    if (renameat2(AT_FDCWD, name_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE) == 0) {
      return moved_ = true;
    }
    if (errno == EEXIST) return false;
    if (errno != EINVAL && errno != ENOSYS) ThrowSystemError(path_, "cannot be made");
    if (access(path_.c_str(), F_OK) == 0) return false;
    if (rename(name_.c_str(), path_.c_str()) != 0) ThrowSystemError(path_, "cannot be made");
    return moved_ = true;
  }

 private:
  const std::string path_;
  std::string name_;
  const Descriptor file_;
  bool moved_ = false;
};

void FlushDirectory(const std::string& path) {
  const Descriptor directory(open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.Get() < 0 || fsync(directory.Get()) != 0) {
    ThrowSystemError(path, "its directory cannot be flushed");
  }
}

}  // namespace

AtRestKey::Pointer AtRestKey::Load(const std::string& path, Kind kind) {
  const std::unique_ptr<SecretText> bytes = ReadFile(path, kind);
  if (bytes == nullptr) return nullptr;
  const uint64_t bits = ReadWord(bytes->Data() + kWordSize);
  if (ReadWord(bytes->Data()) != kMagic || bits < AtRestCipher::kMinimumBits ||
      bits > AtRestCipher::kMaximumBits || bits % kWordBits != 0 ||
      bytes->Size() != FileSize(static_cast<int>(bits)) ||
      ReadWord(bytes->Data() + 2 * kWordSize) != kPrimes ||
      ReadWord(bytes->Data() + 3 * kWordSize) != kPadding) {
    throw Exception("key file %s: damaged or not a key file", path.c_str());
  }
  const size_t words = static_cast<size_t>(bits) / kWordBits;
  Numbers numbers;
  for (size_t i = 0; i < kNumbers; ++i) {
    numbers[i] = BuildNumber(bytes->Data() + (kHeaderWords + i * words) * kWordSize, words);
    if (numbers[i] == nullptr) ThrowLibraryError(path, "the key cannot be built");
  }
  if (!AreConsistent(numbers, static_cast<int>(bits))) {
    ERR_clear_error();
    throw Exception("key file %s: damaged, its numbers make no key", path.c_str());
  }
  Pointer key = BuildKey(numbers);
  if (key == nullptr) ThrowLibraryError(path, "the key cannot be built");
  return key;
}

bool AtRestKey::Create(const std::string& path, int bits) {
  if (access(path.c_str(), F_OK) == 0) return false;
  if (access(DirectoryOf(path).c_str(), W_OK | X_OK) != 0) ThrowSystemError(path, "cannot be made");
  // Before there is a file: this takes long enough for a process to be killed in it.
  SecretText bytes(FileSize(bits));
  while (!WriteKey(GenerateKey(path, bits).get(), bits, bytes)) {
  }
  RemoveRemains(path);
  UnfinishedFile file(path);
  WriteAll(path, file.Get(), bytes);
  if (!file.MoveIntoPlace()) return false;
  FlushDirectory(path);
  return true;
}

}  // namespace vigila::server

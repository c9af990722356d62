#include "vigila/server/at_rest_cipher.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <cstdlib>

#include "krand/base64/base64.h"
#include "tevra/core/logger.h"
#include "tevra/core/platform_config.h"
#include "tevra/osa/exception.h"

namespace vigila::server {

namespace {

using tevra::core::SecretText;
using tevra::osa::Exception;
using tevra::osa::MutexAutoLock;

constexpr char kFileName[] = "vigila.key";

const tevra::core::ConfigKey kDirectory{"Settings", "directory", "/var/lib/vigila"};

tevra::core::Logger* GetLogger() {
  return tevra::core::Logger::GetLogger("AtRestCipher");
}

// The service manager's credential; empty when it passed none.
std::string FindCredential() {
  const char* const directory = std::getenv("CREDENTIALS_DIRECTORY");
  if (directory == nullptr) return {};
  const std::string path = std::string(directory) + "/" + kFileName;
  return access(path.c_str(), F_OK) == 0 ? path : std::string();
}

std::string DefaultPath() {
  return tevra::core::PlatformConfig::Get().GetString(kDirectory) + "/" + kFileName;
}

}  // namespace

void AtRestCipher::FreeContext::operator()(EVP_PKEY_CTX* context) const {
  EVP_PKEY_CTX_free(context);
}

AtRestCipher::AtRestCipher(const std::string& configured_path)
    : path_(FindCredential()), kind_(AtRestKey::Kind::kCredential) {
  if (!path_.empty()) return;
  path_ = configured_path.empty() ? DefaultPath() : configured_path;
  kind_ = AtRestKey::Kind::kOwnFile;
}

AtRestCipher::~AtRestCipher() = default;

void AtRestCipher::Open(bool store_holds_secrets) {
  const MutexAutoLock lock(mutex_);
  key_ = AtRestKey::Load(path_, kind_);
  if (key_ != nullptr) return;
  // A new key over old data would lose every password without a word.
  if (store_holds_secrets) {
    throw Exception("key file %s: missing, and the settings hold values encrypted with it",
                    path_.c_str());
  }
  if (AtRestKey::Create(path_, AtRestKey::kDefaultBits)) {
    GetLogger()->Notice("made a new key in %s", path_.c_str());
  }
  key_ = AtRestKey::Load(path_, kind_);
  if (key_ == nullptr) throw Exception("key file %s: gone again", path_.c_str());
}

AtRestCipher::Context AtRestCipher::MakeContext(EVP_PKEY* key,
                                                int (*initialize)(EVP_PKEY_CTX*)) const {
  Context context(EVP_PKEY_CTX_new(key, nullptr));
  if (context == nullptr || initialize(context.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
      EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_sha256()) != 1) {
    ERR_clear_error();
    throw Exception("key file %s: the key cannot be used", path_.c_str());
  }
  return context;
}

// Not at the start: the first use of a key takes 2 MiB of libcrypto into memory.
bool AtRestCipher::MakeReady() {
  if (decryption_ != nullptr) return true;
  if (key_ == nullptr) return false;
  const AtRestKey::Pointer key = key_->Build();
  Context encryption = MakeContext(key.get(), EVP_PKEY_encrypt_init);
  Context decryption = MakeContext(key.get(), EVP_PKEY_decrypt_init);
  cipher_block_ = static_cast<size_t>(EVP_PKEY_get_size(key.get()));
  clear_block_ = cipher_block_ - 2 * static_cast<size_t>(EVP_MD_get_size(EVP_sha256())) - 2;
  encryption_ = std::move(encryption);
  decryption_ = std::move(decryption);
  decoy_ = krand::lib::Base64::Decode(EncryptBlocks("decoy").value_or(""));
  key_.reset();
  return true;
}

bool AtRestCipher::IsReady() {
  try {
    return MakeReady();
  } catch (const Exception& error) {
    GetLogger()->Error("%s", error.what());
    return false;
  }
}

std::optional<std::string> AtRestCipher::EncryptBlocks(std::string_view clear) {
  std::string bytes;
  do {
    const std::string_view part = clear.substr(0, clear_block_);
    clear.remove_prefix(part.size());
    std::string block(cipher_block_, '\0');
    size_t length = block.size();
    // An empty text is a block too; the library wants an address for it all the same.
    const char* data = part.empty() ? "" : part.data();
    if (EVP_PKEY_encrypt(encryption_.get(), reinterpret_cast<unsigned char*>(block.data()), &length,
                         reinterpret_cast<const unsigned char*>(data), part.size()) != 1 ||
        length != cipher_block_) {
      ERR_clear_error();
      return std::nullopt;
    }
    bytes += block;
  } while (!clear.empty());
  return krand::lib::Base64::Encode(bytes);
}

std::optional<SecretText> AtRestCipher::DecryptBlocks(const std::string& stored) {
  std::string bytes = krand::lib::Base64::Decode(stored);
  const bool whole = !bytes.empty() && bytes.size() % cipher_block_ == 0;
  if (!whole) bytes = decoy_;
  SecretText clear(bytes.size());
  size_t total = 0;
  for (size_t offset = 0; offset < bytes.size(); offset += cipher_block_) {
    size_t length = clear.Size() - total;
    if (EVP_PKEY_decrypt(decryption_.get(), clear.Data() + total, &length,
                         reinterpret_cast<const unsigned char*>(bytes.data()) + offset,
                         cipher_block_) != 1) {
      ERR_clear_error();
      return std::nullopt;
    }
    total += length;
  }
  if (!whole) return std::nullopt;
  clear.Shorten(total);
  return clear;
}

bool AtRestCipher::IsKeyOf(const std::vector<std::string>& stored) {
  const MutexAutoLock lock(mutex_);
  if (!MakeReady()) return false;
  for (const std::string& value : stored) {
    if (DecryptBlocks(value).has_value()) return true;
  }
  return false;
}

std::optional<std::string> AtRestCipher::Encrypt(std::string_view clear) {
  const MutexAutoLock lock(mutex_);
  std::optional<std::string> stored;
  if (IsReady()) stored = EncryptBlocks(clear);
  if (!stored.has_value()) GetLogger()->Error("a secret could not be encrypted");
  return stored;
}

std::optional<SecretText> AtRestCipher::Decrypt(const std::string& stored) {
  const MutexAutoLock lock(mutex_);
  if (!IsReady()) return std::nullopt;
  return DecryptBlocks(stored);
}

std::unique_ptr<AtRestCipher> AtRestCipher::Duplicate() {
  const MutexAutoLock lock(mutex_);
  if (!MakeReady()) throw Exception("key file %s: not open", path_.c_str());
  auto copy = std::make_unique<AtRestCipher>(path_);
  const MutexAutoLock copy_lock(copy->mutex_);
  copy->encryption_.reset(EVP_PKEY_CTX_dup(encryption_.get()));
  copy->decryption_.reset(EVP_PKEY_CTX_dup(decryption_.get()));
  if (copy->encryption_ == nullptr || copy->decryption_ == nullptr) {
    ERR_clear_error();
    throw Exception("key file %s: the key cannot be used twice", path_.c_str());
  }
  copy->cipher_block_ = cipher_block_;
  copy->clear_block_ = clear_block_;
  copy->decoy_ = decoy_;
  return copy;
}

void AtRestCipher::BurnDecryption() {
  const MutexAutoLock lock(mutex_);
  if (IsReady()) DecryptBlocks("");
}

}  // namespace vigila::server

#include "vigila/server/at_rest_cipher.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "krand/base64/base64.h"
#include "tevra/core/logger.h"
#include "tevra/core/platform_config.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/mutex.h"
#include "vigila/server/at_rest_key.h"

namespace vigila::server {

namespace {

using tevra::core::SecretText;
using tevra::osa::Exception;
using tevra::osa::MutexAutoLock;

constexpr char kFileName[] = "vigila.key";

struct FreeContext {
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_PKEY_CTX, FreeContext>;

// Open with a key; ready with its contexts, which take the key's place.
struct State {
  tevra::osa::Mutex mutex{"AtRestCipher"};
  std::string configured_path TEVRA_GUARDED_BY(mutex);
  std::unique_ptr<const AtRestKey> key TEVRA_GUARDED_BY(mutex);
  Context encryption TEVRA_GUARDED_BY(mutex);
  Context decryption TEVRA_GUARDED_BY(mutex);
  size_t cipher_block TEVRA_GUARDED_BY(mutex) = 0;
  size_t clear_block TEVRA_GUARDED_BY(mutex) = 0;
  std::string decoy TEVRA_GUARDED_BY(mutex);  // what BurnDecryption decrypts
};

// Never destroyed: a platform thread may still answer while the process leaves main.
State& GetState() {
  static State& state = *new State;
  return state;
}

tevra::core::Logger* GetLogger() {
  return tevra::core::Logger::GetLogger("AtRestCipher");
}

struct KeyPlace {
  std::string path;
  AtRestKey::Kind kind;
};

KeyPlace FindKeyPlace(const State& state) TEVRA_REQUIRES(state.mutex) {
  if (const char* directory = std::getenv("CREDENTIALS_DIRECTORY"); directory != nullptr) {
    const std::string path = std::string(directory) + "/" + kFileName;
    if (access(path.c_str(), F_OK) == 0) return {path, AtRestKey::Kind::kCredential};
  }
  if (!state.configured_path.empty()) return {state.configured_path, AtRestKey::Kind::kOwnFile};
  const std::string directory =
      tevra::core::PlatformConfig::Get().GetString("Settings", "directory", "/var/lib/vigila");
  return {directory + "/" + kFileName, AtRestKey::Kind::kOwnFile};
}

std::unique_ptr<const AtRestKey> LoadOrCreate(const KeyPlace& place, bool store_holds_secrets) {
  std::unique_ptr<const AtRestKey> key = AtRestKey::Load(place.path, place.kind);
  if (key != nullptr) return key;
  // A new key over old data would lose every password without a word.
  if (store_holds_secrets) {
    throw Exception("key file %s: missing, and the settings hold values encrypted with it",
                    place.path.c_str());
  }
  if (AtRestKey::Create(place.path, AtRestCipher::kDefaultBits)) {
    GetLogger()->Notice("made a new key in %s", place.path.c_str());
  }
  key = AtRestKey::Load(place.path, place.kind);
  if (key == nullptr) throw Exception("key file %s: gone again", place.path.c_str());
  return key;
}

void UseOaep(EVP_PKEY_CTX* context, int status, const std::string& path) {
  if (status != 1 || EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING) != 1 ||
      EVP_PKEY_CTX_set_rsa_oaep_md(context, EVP_sha256()) != 1) {
    ERR_clear_error();
    throw Exception("key file %s: the key cannot be used", path.c_str());
  }
}

std::optional<std::string> EncryptLocked(State& state, std::string_view clear)
    TEVRA_REQUIRES(state.mutex) {
  std::string bytes;
  do {
    const std::string_view part = clear.substr(0, state.clear_block);
    clear.remove_prefix(part.size());
    std::string block(state.cipher_block, '\0');
    size_t length = block.size();
    // An empty text is a block too; the library wants an address for it all the same.
    const char* data = part.empty() ? "" : part.data();
    if (EVP_PKEY_encrypt(state.encryption.get(), reinterpret_cast<unsigned char*>(block.data()),
                         &length, reinterpret_cast<const unsigned char*>(data), part.size()) != 1 ||
        length != state.cipher_block) {
      ERR_clear_error();
      return std::nullopt;
    }
    bytes += block;
  } while (!clear.empty());
  return krand::lib::Base64::Encode(bytes);
}

std::optional<SecretText> DecryptLocked(State& state, const std::string& stored)
    TEVRA_REQUIRES(state.mutex) {
  const std::string bytes = krand::lib::Base64::Decode(stored);
  if (bytes.empty() || bytes.size() % state.cipher_block != 0) return std::nullopt;
  SecretText clear(bytes.size());
  size_t total = 0;
  for (size_t offset = 0; offset < bytes.size(); offset += state.cipher_block) {
    size_t length = clear.Size() - total;
    if (EVP_PKEY_decrypt(state.decryption.get(), clear.Data() + total, &length,
                         reinterpret_cast<const unsigned char*>(bytes.data()) + offset,
                         state.cipher_block) != 1) {
      ERR_clear_error();
      return std::nullopt;
    }
    total += length;
  }
  clear.Shorten(total);
  return clear;
}

void MakeContexts(State& state) TEVRA_REQUIRES(state.mutex) {
  const AtRestKey::Pointer key = state.key->Build();
  Context encryption(EVP_PKEY_CTX_new(key.get(), nullptr));
  Context decryption(EVP_PKEY_CTX_new(key.get(), nullptr));
  UseOaep(encryption.get(), EVP_PKEY_encrypt_init(encryption.get()), state.key->Path());
  UseOaep(decryption.get(), EVP_PKEY_decrypt_init(decryption.get()), state.key->Path());
  state.cipher_block = static_cast<size_t>(EVP_PKEY_get_size(key.get()));
  state.clear_block =
      state.cipher_block - 2 * static_cast<size_t>(EVP_MD_get_size(EVP_sha256())) - 2;
  state.encryption = std::move(encryption);
  state.decryption = std::move(decryption);
  state.decoy = EncryptLocked(state, "decoy").value_or("");
}

bool IsOpenLocked(const State& state) TEVRA_REQUIRES(state.mutex) {
  return state.key != nullptr || state.decryption != nullptr;
}

// The first use of a key takes 2 MiB of libcrypto into memory, which a start does not wait for. A
// key that the library does not take is not open: nobody may take it for a wrong password.
bool MakeReady(State& state) TEVRA_REQUIRES(state.mutex) {
  if (state.key == nullptr) return state.decryption != nullptr;
  try {
    MakeContexts(state);
  } catch (const Exception& error) {
    GetLogger()->Error("%s", error.what());
  }
  state.key.reset();
  return state.decryption != nullptr;
}

}  // namespace

void AtRestCipher::Configure(const std::string& path) {
  State& state = GetState();
  const MutexAutoLock lock(state.mutex);
  state.configured_path = path;
}

std::string AtRestCipher::KeyFile() {
  State& state = GetState();
  const MutexAutoLock lock(state.mutex);
  return FindKeyPlace(state).path;
}

void AtRestCipher::Open(bool store_holds_secrets) {
  State& state = GetState();
  const MutexAutoLock lock(state.mutex);
  if (IsOpenLocked(state)) return;
  state.key = LoadOrCreate(FindKeyPlace(state), store_holds_secrets);
}

bool AtRestCipher::IsOpen() {
  State& state = GetState();
  const MutexAutoLock lock(state.mutex);
  return IsOpenLocked(state);
}

void AtRestCipher::CreateKeyFile(const std::string& path, int bits) {
  if (bits < kMinimumBits || bits > kMaximumBits || bits % 64 != 0) {
    throw Exception("key file %s: %d bits is no key's size", path.c_str(), bits);
  }
  if (!AtRestKey::Create(path, bits)) {
    throw Exception("key file %s: exists already", path.c_str());
  }
}

void AtRestCipher::Close() {
  State& state = GetState();
  const MutexAutoLock lock(state.mutex);
  state.key.reset();
  state.encryption.reset();
  state.decryption.reset();
  state.decoy.clear();
}

std::optional<std::string> AtRestCipher::Encrypt(std::string_view clear) {
  State& state = GetState();
  const MutexAutoLock lock(state.mutex);
  std::optional<std::string> stored;
  if (MakeReady(state)) stored = EncryptLocked(state, clear);
  if (!stored.has_value()) GetLogger()->Error("a secret could not be encrypted");
  return stored;
}

std::optional<SecretText> AtRestCipher::Decrypt(const std::string& stored) {
  State& state = GetState();
  const MutexAutoLock lock(state.mutex);
  if (!MakeReady(state)) return std::nullopt;
  return DecryptLocked(state, stored);
}

void AtRestCipher::BurnDecryption() {
  State& state = GetState();
  const MutexAutoLock lock(state.mutex);
  if (MakeReady(state)) DecryptLocked(state, state.decoy);
}

}  // namespace vigila::server

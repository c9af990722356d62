#ifndef VIGILA_SERVER_AT_REST_CIPHER_H_
#define VIGILA_SERVER_AT_REST_CIPHER_H_

#include <openssl/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tevra/core/secret_text.h"
#include "tevra/osa/mutex.h"
#include "vigila/server/at_rest_key.h"

namespace vigila::server {

// Keeps passwords and passphrases unreadable in the settings: RSA with OAEP padding under the
// device's own key, as one line of base64. The key lives in a file of its own beside the settings,
// never in them. The server has one cipher; from its first use on it holds one encryption and one
// decryption context. Any thread.
//
// The key file: the systemd credential "vigila.key" when the service manager passes one, else the
// configured path, else vigila.key in the settings directory. It must be a regular file of this
// user (or root) that no one else may read. Every exception names the file.
class AtRestCipher final {
 public:
  // `configured_path` names the key file; empty for the default. Reads nothing yet.
  explicit AtRestCipher(const std::string& configured_path);
  ~AtRestCipher();
  AtRestCipher(const AtRestCipher&) = delete;
  AtRestCipher& operator=(const AtRestCipher&) = delete;

  // The file that Open reads or makes.
  const std::string& KeyFile() const { return path_; }

  // Reads the key file. A missing one is made with a new key, unless the store holds values that
  // only the lost key could read. Throws tevra::osa::Exception on a file that is missing, of
  // another size or kind, foreign-owned, readable by others, or cannot be made. A damaged number in
  // it shows at the first use.
  void Open(bool store_holds_secrets);
  // Whether one of the values at least is of this key. Throws, also without a value, when its
  // numbers make no key and when the library does not take it.
  bool IsKeyOf(const std::vector<std::string>& stored);

  // The at-rest form of a text of any length and bytes. Nothing when no key is open or the library
  // fails, which is logged.
  std::optional<std::string> Encrypt(std::string_view clear);
  // The clear text of an at-rest form. Nothing when the text is not one that this key made, no key
  // is open or the library fails; that the library does not take the key is logged.
  std::optional<tevra::core::SecretText> Decrypt(const std::string& stored);
  // Another cipher of the same key, for work that must not make logons wait for it. Throws as
  // IsKeyOf; opens nothing.
  std::unique_ptr<AtRestCipher> Duplicate();
  // Takes the time of one decryption, as Decrypt does of any text: no refusal is to be faster.
  void BurnDecryption();

 private:
  struct FreeContext {
    void operator()(EVP_PKEY_CTX* context) const;
  };
  using Context = std::unique_ptr<EVP_PKEY_CTX, FreeContext>;

  Context MakeContext(EVP_PKEY* key, int (*initialize)(EVP_PKEY_CTX*)) const;
  // Throws when the library does not take the key; false when none is open.
  bool MakeReady() TEVRA_REQUIRES(mutex_);
  // The same with a log line in place of the exception.
  bool IsReady() TEVRA_REQUIRES(mutex_);
  std::optional<std::string> EncryptBlocks(std::string_view clear) TEVRA_REQUIRES(mutex_);
  std::optional<tevra::core::SecretText> DecryptBlocks(const std::string& stored)
      TEVRA_REQUIRES(mutex_);

  // Constant after construction.
  std::string path_;
  AtRestKey::Kind kind_;

  tevra::osa::Mutex mutex_{"AtRestCipher"};
  // From Open until the contexts are made of it.
  std::unique_ptr<const AtRestKey> key_ TEVRA_GUARDED_BY(mutex_);
  Context encryption_ TEVRA_GUARDED_BY(mutex_);
  Context decryption_ TEVRA_GUARDED_BY(mutex_);
  size_t cipher_block_ TEVRA_GUARDED_BY(mutex_) = 0;  // bytes
  size_t clear_block_ TEVRA_GUARDED_BY(mutex_) = 0;   // bytes
  std::string decoy_ TEVRA_GUARDED_BY(mutex_);        // bytes that are decrypted for nothing
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_AT_REST_CIPHER_H_

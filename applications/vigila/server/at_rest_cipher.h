#ifndef VIGILA_SERVER_AT_REST_CIPHER_H_
#define VIGILA_SERVER_AT_REST_CIPHER_H_

#include <optional>
#include <string>
#include <string_view>

#include "tevra/core/secret_text.h"

namespace vigila::server {

// Keeps passwords and passphrases unreadable in the settings: RSA with OAEP padding under the
// device's own key, as one line of base64. The key lives in a file of its own beside the settings,
// never in them. One key per process, and from its first use on one encryption and one decryption
// context; any thread.
//
// The key file: the systemd credential "vigila.key" when the service manager passes one, else the
// configured path, else vigila.key in the settings directory. It must be a regular file of this
// user (or root) that no one else may read. Every exception names the file.
class AtRestCipher {
 public:
  static constexpr int kDefaultBits = 3072;
  static constexpr int kMinimumBits = 2048;
  static constexpr int kMaximumBits = 4096;

  // Names the key file; empty for the default. Only before the first use or after Close.
  static void Configure(const std::string& path);
  // The file that Open reads or makes.
  static std::string KeyFile();

  // Reads the key file; nothing happens when the key is open already. A missing file is made with a
  // new key, unless the store holds values that only the lost key could read. Throws
  // tevra::osa::Exception on a file that is missing, damaged, of another size, foreign-owned,
  // readable by others, or cannot be made. A key that the library does not take shows at its first
  // use: that is logged, and the key is open no more.
  static void Open(bool store_holds_secrets);
  // Makes a key file; throws when there is one already.
  static void CreateKeyFile(const std::string& path, int bits);
  static bool IsOpen();
  // Forgets the key.
  static void Close();

  // The at-rest form of a text of any length and bytes. Nothing when no key is open or the library
  // fails; the reason is logged.
  static std::optional<std::string> Encrypt(std::string_view clear);
  // The clear text of an at-rest form. Nothing when no key is open or the text is not one that this
  // key made.
  static std::optional<tevra::core::SecretText> Decrypt(const std::string& stored);
  // Takes the time of one decryption, so that a refusal that needs none is no faster.
  static void BurnDecryption();
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_AT_REST_CIPHER_H_

#ifndef VIGILA_SERVER_BACKUP_BACKUP_FILE_H_
#define VIGILA_SERVER_BACKUP_BACKUP_FILE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tevra/core/secret_text.h"

namespace vigila::server {

// The file that a backup travels in: its content encrypted under a passphrase (scrypt, AES-256-GCM)
// and a check sum over all of it, so that damage is told from a wrong passphrase.
//
// Magic (8 bytes), version (4, most significant first), scrypt's log2 N, r and p (1 each), a zero
// byte, salt (16), nonce (12), the encrypted content, its tag (16), the SHA-256 of everything
// before (32). Magic, version and check sum stand so in every version.
class BackupFile final {
 public:
  static constexpr uint32_t kVersion = 1;
  static constexpr size_t kMaximumBytes = size_t{8} << 20;
  // A lost file can be tried with passphrases for years.
  static constexpr size_t kMinimumPassphraseBytes = 12;

  // Throws tevra::osa::Exception when the library fails. Takes some 100 ms and 32 MiB, on purpose:
  // so does each passphrase that is tried.
  static std::string Seal(std::string_view content, std::string_view passphrase);
  // What is known without the passphrase: contract::kApplied, kBackupDamaged or kBackupNewer.
  static int Inspect(std::string_view file);
  // Of a file that Inspect accepts. Nothing when it was not sealed under this passphrase.
  static std::optional<tevra::core::SecretText> Open(std::string_view file,
                                                     std::string_view passphrase);
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_BACKUP_BACKUP_FILE_H_

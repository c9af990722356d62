#ifndef VIGILA_SERVER_BACKUP_BACKUP_WORK_H_
#define VIGILA_SERVER_BACKUP_BACKUP_WORK_H_

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "tevra/core/secret_text.h"
#include "vigila/server/backup/store_image.h"

namespace vigila::server {

class AtRestCipher;

// The long part of a backup and of a restoration: thousands of private-key operations and a key
// derivation. Both work on copies, so that they can run beside the requests; they touch neither
// settings nor sessions.

struct SavedBackup {
  int code = 0;  // contract::kApplied or kBackupTooLarge
  std::string file;
  size_t unreadable = 0;  // secrets that were not of this key, and were left out
};

// A store in the place of the present one, and what that would change.
struct StagedRestore {
  int code = 0;  // contract::kApplied, kBackupLocked, kBackupDamaged or kLastAdministrator
  StoreImage image;
  std::string base;  // fingerprint of the store that it was compared with

  struct Difference {
    std::vector<std::string> added;
    std::vector<std::string> changed;
    std::vector<std::string> removed;
  };
  Difference accounts;       // names
  Difference passphrases;    // identifiers
  Difference rules;          // paths; none is ever added or removed
  size_t unknown_rules = 0;  // of paths that this device has no changeable rule for
};

// The work stops soon after `stop` is true; its result means nothing then. Throws
// tevra::osa::Exception when a secret cannot be encrypted or the library fails.
SavedBackup SaveBackup(const StoreImage& store, AtRestCipher& cipher,
                       const tevra::core::SecretText& passphrase, const std::atomic<bool>& stop);
// `file` is one that BackupFile::Inspect accepts, `present` the store as it is.
StagedRestore StageRestore(const std::string& file, const tevra::core::SecretText& passphrase,
                           const StoreImage& present, AtRestCipher& cipher,
                           const std::atomic<bool>& stop);

}  // namespace vigila::server

#endif  // VIGILA_SERVER_BACKUP_BACKUP_WORK_H_

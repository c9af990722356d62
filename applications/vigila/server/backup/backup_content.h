#ifndef VIGILA_SERVER_BACKUP_BACKUP_CONTENT_H_
#define VIGILA_SERVER_BACKUP_BACKUP_CONTENT_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tevra/core/secret_text.h"

namespace vigila::server {

// What a backup holds, secrets in clear: another device has another at-rest key. The secrets are
// borrowed, so that they stay where they are wiped.
struct BackupContent {
  struct Account {
    int32_t group = 0;
    uint32_t password_time = 0;  // these four as they are stored
    uint32_t bad_password_time = 0;
    uint32_t disabled_time = 0;
    uint32_t failed_attempts = 0;
    std::optional<std::string_view> password;

    bool operator==(const Account&) const = default;
  };
  struct Phrase {
    std::string alias;
    std::string_view phrase;

    bool operator==(const Phrase&) const = default;
  };

  std::map<std::string, Account> accounts;                         // by name
  std::map<std::string, std::vector<std::string_view>> histories;  // by name, oldest first
  std::map<std::string, Phrase> passphrases;                       // by identifier
  std::map<std::string, std::string> rules;                        // by path

  // One record after the other: a letter, then its fields, numbers of 32 bits with the most
  // significant byte first, texts as their length and their bytes.
  tevra::core::SecretText Encode() const;
  // Borrows from `bytes`. Nothing when they are not what Encode gives.
  static std::optional<BackupContent> Decode(std::string_view bytes);
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_BACKUP_BACKUP_CONTENT_H_

#ifndef VIGILA_SERVER_PASSWORD_VAULT_H_
#define VIGILA_SERVER_PASSWORD_VAULT_H_

#include <optional>
#include <string>
#include <string_view>

#include "tevra/core/secret_text.h"

namespace vigila::server {

class AtRestCipher;

// What the user store knows of secrets: the stored text of a password or passphrase, and its clear
// text. Any thread.
class PasswordVault final {
 public:
  // The cipher must outlive the vault. Null for one that encrypts and decrypts nothing.
  explicit PasswordVault(AtRestCipher* cipher) : cipher_(cipher) {}

  // The clear text; nothing when there is none, the empty one included.
  std::optional<tevra::core::SecretText> Decrypt(const std::string& stored) const;
  // Throws tevra::osa::Exception when the text cannot be encrypted.
  std::string Encrypt(std::string_view clear) const;
  // False too for a stored text that has no clear one. Takes the time of a decryption in any case.
  bool Matches(const std::string& stored, std::string_view clear) const;
  // Takes the time of a decryption, where there is no stored text: whoever measures the answer must
  // not learn which names exist.
  void BurnDecryption() const;

 private:
  AtRestCipher* const cipher_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_PASSWORD_VAULT_H_

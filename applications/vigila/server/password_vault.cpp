#include "vigila/server/password_vault.h"

#include <utility>

#include "tevra/osa/exception.h"
#include "vigila/server/at_rest_cipher.h"

namespace vigila::server {

using tevra::core::SecretText;

std::optional<SecretText> PasswordVault::Decrypt(const std::string& stored) const {
  if (stored.empty() || cipher_ == nullptr) return std::nullopt;
  std::optional<SecretText> clear = cipher_->Decrypt(stored);
  // An empty password would let everyone in who offers none.
  if (clear.has_value() && clear->Empty()) return std::nullopt;
  return clear;
}

std::string PasswordVault::Encrypt(std::string_view clear) const {
  std::optional<std::string> stored;
  if (cipher_ != nullptr) stored = cipher_->Encrypt(clear);
  if (!stored.has_value()) throw tevra::osa::Exception("a secret could not be encrypted");
  return *std::move(stored);
}

bool PasswordVault::Matches(const std::string& stored, std::string_view clear) const {
  if (stored.empty()) {
    BurnDecryption();
    return false;
  }
  const std::optional<SecretText> password = Decrypt(stored);
  return password.has_value() && tevra::core::EqualInConstantTime(password->View(), clear);
}

void PasswordVault::BurnDecryption() const {
  if (cipher_ != nullptr) cipher_->BurnDecryption();
}

}  // namespace vigila::server

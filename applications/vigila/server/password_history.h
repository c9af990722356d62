#ifndef VIGILA_SERVER_PASSWORD_HISTORY_H_
#define VIGILA_SERVER_PASSWORD_HISTORY_H_

#include <cstddef>
#include <string>

namespace vigila::server {

class PasswordVault;

// The accounts' previous passwords, in their at-rest form, oldest first. They are in the settings
// only. Account operations call it one at a time.
class PasswordHistory final {
 public:
  // Remembers the newest `kept` passwords of an account. The vault must outlive it.
  PasswordHistory(const PasswordVault& vault, size_t kept) : vault_(vault), kept_(kept) {}

  // Whether `proposed` is one of the account's previous passwords.
  bool Contains(const std::string& name, const std::string& proposed) const;
  // Appends a password. Throws tevra::osa::Exception when the settings cannot be written.
  void Append(const std::string& name, const std::string& stored_password) const;

 private:
  const PasswordVault& vault_;
  const size_t kept_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_PASSWORD_HISTORY_H_

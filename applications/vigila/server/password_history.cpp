#include "vigila/server/password_history.h"

#include <optional>
#include <vector>

#include "tevra/osa/exception.h"
#include "vigila/server/password_vault.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {

namespace {

std::string HistoryKey(const std::string& name) {
  return UserSettings::Key(UserSettings::kHistoryPrefix, name);
}

// Deliberate: a history that cannot be read is taken for an empty one. It left its Error line, and
// an account must not be stuck with its password because of it.
std::vector<std::string> ReadHistory(const std::string& name) {
  try {
    return UserSettings::ReadTexts(HistoryKey(name));
  } catch (const tevra::osa::Exception&) {
    return {};
  }
}

}  // namespace

bool PasswordHistory::Contains(const std::string& name, const std::string& proposed) const {
  for (const std::string& stored : ReadHistory(name)) {
    const std::optional<tevra::core::SecretText> password = vault_.Decrypt(stored);
    if (password.has_value() && tevra::core::EqualInConstantTime(password->View(), proposed)) {
      return true;
    }
  }
  return false;
}

void PasswordHistory::Append(const std::string& name, const std::string& stored_password) const {
  std::vector<std::string> history = ReadHistory(name);
  history.push_back(stored_password);
  if (history.size() > kept_) {
    history.erase(history.begin(), history.end() - static_cast<std::ptrdiff_t>(kept_));
  }
  UserSettings::WriteTexts(HistoryKey(name), history);
}

}  // namespace vigila::server

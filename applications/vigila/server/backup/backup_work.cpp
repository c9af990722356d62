#include "vigila/server/backup/backup_work.h"

#include <deque>
#include <optional>
#include <string_view>
#include <utility>

#include "vigila/contract/result_codes.h"
#include "vigila/server/backup/backup_content.h"
#include "vigila/server/backup/backup_file.h"
#include "vigila/server/password_vault.h"

namespace vigila::server {
namespace {

using tevra::core::SecretText;
using MyUser = UserMap::Impl::MyUser;

// A store's content in clear, and the memory that its secrets lie in.
class ClearStore final {
 public:
  ClearStore(const StoreImage& store, const PasswordVault& vault, const std::atomic<bool>& stop)
      : vault_(vault), stop_(stop) {
    for (const auto& [name, user] : store.accounts) content_.accounts[name] = Account(user);
    for (const auto& [id, passphrase] : store.passphrases) {
      const std::optional<std::string_view> phrase = Decrypt(passphrase.phrase);
      if (phrase) content_.passphrases[id] = {passphrase.alias, *phrase};
    }
    content_.rules = store.rules;
  }
  // Apart, because no comparison needs them and they are most of the work.
  void AddHistories(const StoreImage& store) {
    for (const auto& [name, passwords] : store.histories) {
      std::vector<std::string_view>& history = content_.histories[name];
      for (const std::string& stored : passwords) {
        if (const auto password = Decrypt(stored)) history.push_back(*password);
      }
    }
  }

  const BackupContent& Content() const { return content_; }
  size_t Unreadable() const { return unreadable_; }

 private:
  BackupContent::Account Account(const MyUser& user) {
    BackupContent::Account account;
    account.group = static_cast<int32_t>(user.group);
    account.password_time = user.password_time;
    account.bad_password_time = user.bad_password_time;
    account.disabled_time = user.disabled_time;
    account.failed_attempts = user.failed_attempts;
    if (!user.password.empty()) account.password = Decrypt(user.password);
    return account;
  }
  std::optional<std::string_view> Decrypt(const std::string& stored) {
    if (stop_) return std::nullopt;
    std::optional<SecretText> clear = vault_.Decrypt(stored);
    if (!clear) {
      ++unreadable_;
      return std::nullopt;
    }
    // A queue does not move what is in it: the views stay good.
    return secrets_.emplace_back(*std::move(clear)).View();
  }

  const PasswordVault& vault_;
  const std::atomic<bool>& stop_;
  std::deque<SecretText> secrets_;
  BackupContent content_;
  size_t unreadable_ = 0;
};

MyUser Encrypted(const std::string& name, const BackupContent::Account& account,
                 const PasswordVault& vault) {
  using tevra::interfaces::ISecurityProvider;
  MyUser user;
  user.group = static_cast<ISecurityProvider::Group>(account.group);
  // As when a store is loaded: no store makes everyone an administrator.
  if (name == UserMap::User::kAnonymousUsername &&
      (user.group == ISecurityProvider::kAdministrators ||
       user.group == ISecurityProvider::kManagers)) {
    user.group = ISecurityProvider::kNobody;
  }
  user.password_time = account.password_time;
  user.bad_password_time = account.bad_password_time;
  user.disabled_time = account.disabled_time;
  user.failed_attempts = account.failed_attempts;
  if (account.password) user.password = vault.Encrypt(*account.password);
  return user;
}

StoreImage Encrypted(const BackupContent& content, const PasswordVault& vault,
                     const std::atomic<bool>& stop) {
  StoreImage image;
  for (const auto& [name, account] : content.accounts) {
    if (stop) return image;
    image.accounts[name] = Encrypted(name, account, vault);
  }
  for (const auto& [name, passwords] : content.histories) {
    std::vector<std::string>& history = image.histories[name];
    for (const std::string_view password : passwords) {
      if (stop) return image;
      history.push_back(vault.Encrypt(password));
    }
  }
  for (const auto& [id, passphrase] : content.passphrases) {
    if (stop) return image;
    image.passphrases[id].alias = passphrase.alias;
    image.passphrases[id].phrase = vault.Encrypt(passphrase.phrase);
  }
  return image;
}

template <typename Record>
StagedRestore::Difference Compare(const std::map<std::string, Record>& present,
                                  const std::map<std::string, Record>& restored) {
  StagedRestore::Difference difference;
  for (const auto& [key, record] : restored) {
    const auto before = present.find(key);
    if (before == present.end()) {
      difference.added.push_back(key);
    } else if (!(before->second == record)) {
      difference.changed.push_back(key);
    }
  }
  for (const auto& [key, record] : present) {
    if (!restored.contains(key)) difference.removed.push_back(key);
  }
  return difference;
}

}  // namespace

SavedBackup SaveBackup(const StoreImage& store, AtRestCipher& cipher, const SecretText& passphrase,
                       const std::atomic<bool>& stop) {
  const PasswordVault vault(&cipher);
  ClearStore clear(store, vault, stop);
  clear.AddHistories(store);
  SavedBackup saved;
  saved.unreadable = clear.Unreadable();
  const SecretText content = clear.Content().Encode();
  saved.file = stop ? std::string() : BackupFile::Seal(content.View(), passphrase.View());
  if (saved.file.size() > BackupFile::kMaximumBytes) {
    saved.code = contract::kBackupTooLarge;
    saved.file.clear();
  }
  return saved;
}

StagedRestore StageRestore(const std::string& file, const SecretText& passphrase,
                           const StoreImage& present, AtRestCipher& cipher,
                           const std::atomic<bool>& stop) {
  StagedRestore staged;
  const std::optional<SecretText> bytes = BackupFile::Open(file, passphrase.View());
  if (!bytes) {
    staged.code = contract::kBackupLocked;
    return staged;
  }
  std::optional<BackupContent> content = BackupContent::Decode(bytes->View());
  if (!content) {
    staged.code = contract::kBackupDamaged;
    return staged;
  }
  // The device's rules are those of its paths; a backup changes them and brings no other.
  const size_t rules = content->rules.size();
  std::erase_if(content->rules,
                [&](const auto& rule) { return !present.rules.contains(rule.first); });
  staged.unknown_rules = rules - content->rules.size();
  content->rules.insert(present.rules.begin(), present.rules.end());

  const PasswordVault vault(&cipher);
  const ClearStore now(present, vault, stop);
  staged.accounts = Compare(now.Content().accounts, content->accounts);
  staged.passphrases = Compare(now.Content().passphrases, content->passphrases);
  staged.rules = Compare(now.Content().rules, content->rules);
  staged.image = Encrypted(*content, vault, stop);
  staged.image.rules = content->rules;
  staged.base = present.Fingerprint();
  if (!staged.image.HasAdministrator()) staged.code = contract::kLastAdministrator;
  return staged;
}

}  // namespace vigila::server

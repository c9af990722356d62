#include <utility>

#include "tevra/osa/exception.h"
#include "vigila/server/backup/store_image.h"
#include "vigila/server/session_manager.h"
#include "vigila/server/user_map_impl.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {
namespace {

// Deletes what is stored under the prefix and is not in `kept`, which is by name.
template <typename Records>
void DeleteOthers(std::string_view prefix, const Records& kept) {
  for (const std::string& key : UserSettings::Keys(prefix)) {
    if (!kept.contains(key.substr(prefix.size()))) UserSettings::Delete(key);
  }
}

template <typename Records>
void WriteRecords(std::string_view prefix, const Records& records) {
  DeleteOthers(prefix, records);
  for (const auto& [name, record] : records) {
    UserSettings::WriteJson(UserSettings::Key(prefix, name), record.ToJson());
  }
}

}  // namespace

// Histories are replaced as well: what a device had before must not refuse passwords of accounts
// that came from another.
void UserMap::Impl::Restore(const StoreImage& image,
                            const std::map<std::string, std::string>& rule_settings) {
  if (IsChangeSet()) throw tevra::osa::Exception("a change set cannot be restored");
  const tevra::osa::MutexAutoLock lock(mutex_);
  UserSettings::Transaction transaction;
  UserSettings::NoteAdministrator();
  WriteRecords(UserSettings::kUserPrefix, image.accounts);
  WriteRecords(UserSettings::kPhrasePrefix, image.passphrases);
  DeleteOthers(UserSettings::kHistoryPrefix, image.histories);
  for (const auto& [name, passwords] : image.histories) {
    UserSettings::WriteTexts(UserSettings::Key(UserSettings::kHistoryPrefix, name), passwords);
  }
  for (const auto& [setting, rule] : rule_settings) UserSettings::WriteText(setting, rule);
  transaction.Commit();
  UserSettings::Settle();
  AdoptImage(image);
}

void UserMap::Impl::AdoptImage(const StoreImage& image) {
  Users users = image.accounts;
  for (auto& [name, user] : users) {
    const auto before = users_.find(name);
    if (before != users_.end()) user.last_logon = before->second.last_logon;
  }
  AdoptUsers(std::move(users));
  passphrases_.Adopt(image.passphrases);
  MakeNobodyEntry();
  sessions_->Invalidate("*");
}

}  // namespace vigila::server

#include "vigila/server/account_check.h"

#include <optional>
#include <string>

#include "krand/core/krand_core.h"
#include "tevra/osa/exception.h"
#include "vigila/server/passphrase_store.h"
#include "vigila/server/user_map_impl.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {

namespace {

// Nothing for a malformed record, which is logged.
template <typename Record>
std::optional<Record> ReadIfSound(const std::string& key, bool& all_sound) {
  try {
    return UserSettings::ReadRecord<Record>(key);
  } catch (const UserSettings::Malformed&) {
    all_sound = false;
    return std::nullopt;
  }
}

}  // namespace

void CheckAccounts() {
  using Provider = UserMap::ISecurityProvider;
  bool all_sound = true;
  bool administrator = false;
  const std::string nobody =
      UserSettings::Key(UserSettings::kUserPrefix, UserMap::User::kAnonymousUsername);
  for (const std::string& key : UserSettings::Keys(UserSettings::kUserPrefix)) {
    const auto user = ReadIfSound<UserMap::Impl::MyUser>(key, all_sound);
    administrator |= user && key != nobody && user->group == Provider::kAdministrators;
  }
  for (const std::string& key : UserSettings::Keys(UserSettings::kPhrasePrefix)) {
    ReadIfSound<Passphrase>(key, all_sound);
  }
  const bool had_administrator = UserSettings::HadAdministrator();
  // A store of an older program, or one whose last write this was.
  if (administrator && !had_administrator) UserSettings::NoteAdministrator();
  if (had_administrator && !administrator && all_sound) {
    throw tevra::osa::Exception("%s is damaged: it had an administrator and has none",
                                krand_core_settings_location());
  }
}

}  // namespace vigila::server

// Accounts as administrators see them.
#include "tevra/osa/exception.h"
#include "vigila/server/user_map_impl.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {

std::vector<AccountState> UserMap::Impl::ListStates(const std::string& after, size_t limit) const {
  std::vector<AccountState> states;
  for (auto entry = users_.upper_bound(after); entry != users_.end() && states.size() < limit;
       ++entry) {
    states.push_back(StateOf(*entry));
  }
  return states;
}

std::optional<AccountState> UserMap::Impl::GetState(const std::string& name) const {
  const auto entry = users_.find(name);
  if (entry == users_.end()) return std::nullopt;
  return StateOf(*entry);
}

// Asks nothing that changes the account: who looks at a lock-out that is over does not end it.
AccountState UserMap::Impl::StateOf(const Users::value_type& entry) const {
  const auto& [name, user] = entry;
  AccountState state;
  state.name = name;
  state.group = user.group;
  state.has_password = !user.password.empty();
  state.last_logon = user.last_logon;
  if (name == User::kAnonymousUsername) return state;
  if (user.password_time > kExpiredNow) state.password_set = user.password_time;
  if (!policy_enforced_) return state;
  state.wrong_passwords = user.failed_attempts;
  state.expired = IsExpired(users_.find(name));
  if (state.password_set != 0) {
    state.expires = int64_t{state.password_set} + password_lifetime_ * kSecondsPerDay;
  }
  if (user.disabled_time == 0) return state;
  const bool returns = user.group == ISecurityProvider::kAdministrators;
  const uint64_t until = uint64_t{user.disabled_time} + administrator_unlock_delay_;
  state.locked = !returns || until > Now();
  if (!state.locked) return state;
  state.locked_since = user.disabled_time;
  if (returns) state.locked_until = static_cast<uint32_t>(until);
  return state;
}

int UserMap::Impl::Unlock(const std::string& name, bool& was_locked) {
  const auto entry = users_.find(name);
  if (entry == users_.end()) return kNoSuchUser;
  was_locked = StateOf(*entry).locked;
  MyUser unlocked = entry->second;
  unlocked.disabled_time = 0;
  unlocked.failed_attempts = 0;
  unlocked.bad_password_time = 0;
  const std::string text = unlocked.ToJson();
  if (text == entry->second.ToJson()) return kOk;
  UserSettings::WriteJson(UserSettings::Key(UserSettings::kUserPrefix, name), text);
  entry->second = unlocked;
  if (was_locked) logger_->Notice("Local user '%s' has been unlocked.", name.c_str());
  return kOk;
}

void UserMap::Impl::NoteLogon(const std::string& name) {
  const auto entry = users_.find(name);
  if (entry != users_.end()) entry->second.last_logon = Now();
}

}  // namespace vigila::server

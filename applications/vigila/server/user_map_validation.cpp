#include <limits>

#include "tevra/osa/exception.h"
#include "vigila/server/user_map_impl.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {

namespace {

// Contract: two blanks between the sentences; log filters look for the line as it is.
constexpr char kDisabledLine[] =
    "Authentication Failed: User account '%s' has been disabled.  Too many invalid passwords.";

// Wide enough for the sum of any two stored numbers.
uint64_t Sum(uint32_t time, uint32_t seconds) {
  return uint64_t{time} + seconds;
}

}  // namespace

int UserMap::Impl::ValidateUser(const std::string& name, const std::string& password,
                                Group& group) {
  // Contract: not logged. The anonymous account has no logon that could fail.
  if (name == User::kAnonymousUsername) return kNoSuchUser;
  const auto found = users_.find(name);
  if (found == users_.end()) {
    logger_->Notice("Authentication Failed: Nonexistent local user %s", name.c_str());
    vault_.BurnDecryption();
    return kNoSuchUser;
  }
  Users::value_type& entry = *found;
  // Contract: the check of a present password before a change ignores lock, delay and expiry, but
  // its failures count and its success is logged as a logon's is.
  const bool bare = group == ISecurityProvider::kNoSuchUser;
  if (!bare && IsDisabled(found)) {
    logger_->Notice(kDisabledLine, name.c_str());
    return kDisabled;
  }
  // Contract: unsigned, so that a clock that was set back never trips the delay, and the refusal
  // is no failed attempt.
  const uint32_t bad_time = entry.second.bad_password_time;
  if (!bare && policy_enforced_ && bad_time != 0 && Now() - bad_time < retry_delay_) {
    logger_->Notice("Authentication Failed: Too soon to retry after bad password.");
    return kWrongPassword;
  }
  if (!vault_.Matches(entry.second.password, password)) return RefuseWrongPassword(entry);
  HandleCorrectPassword(entry);
  // Contract: after the counters were reset; the password was the right one.
  if (!bare && IsExpired(found)) {
    logger_->Notice("Password has expired for local user '%s'.", name.c_str());
    return kExpired;
  }
  group = entry.second.group;
  logger_->Notice("Local user '%s' has successfully logged on.", name.c_str());
  return kOk;
}

int UserMap::Impl::RefuseWrongPassword(Users::value_type& entry) {
  if (HandleWrongPassword(entry)) {
    logger_->Notice(kDisabledLine, entry.first.c_str());
    return kDisabled;
  }
  logger_->Notice("Authentication Failed: Incorrect password specified for local user '%s'.",
                  entry.first.c_str());
  return kWrongPassword;
}

bool UserMap::Impl::HandleWrongPassword(Users::value_type& entry) {
  MyUser& user = entry.second;
  if (!policy_enforced_) return false;
  const uint32_t now = Now();
  // Contract: the last second of the period is still inside, and within a series the time stays
  // that of its first failure.
  const bool same_series =
      user.bad_password_time != 0 && Sum(user.bad_password_time, failure_period_) >= now;
  if (user.bad_password_time != 0 && !same_series) user.failed_attempts = 0;
  // Contract: beyond the limit too; the store tells how often a locked account was tried.
  if (user.failed_attempts != std::numeric_limits<uint32_t>::max()) ++user.failed_attempts;
  if (!same_series) user.bad_password_time = now;
  const bool disabled = user.failed_attempts >= maximum_failed_attempts_;
  if (disabled) user.disabled_time = now;
  SaveCounters(entry);
  return disabled;
}

// Contract: the time of the last failure stays, so that the retry delay after it still holds.
void UserMap::Impl::HandleCorrectPassword(Users::value_type& entry) {
  if (!policy_enforced_) return;
  entry.second.disabled_time = 0;
  entry.second.failed_attempts = 0;
  SaveCounters(entry);
}

void UserMap::Impl::SaveCounters(const Users::value_type& entry) const {
  try {
    UserSettings::WriteJson(UserSettings::Key(UserSettings::kUserPrefix, entry.first),
                            entry.second.ToJson());
  } catch (const tevra::osa::Exception&) {
    // Logged already; a full disk must neither let someone in nor keep everyone out.
  }
}

bool UserMap::Impl::IsDisabled(Users::iterator entry) {
  if (!policy_enforced_ || entry == users_.end()) return false;
  MyUser& user = entry->second;
  if (entry->first == User::kAnonymousUsername || user.disabled_time == 0) return false;
  // Contract: administrators come back by themselves, so that no one can lock the device's last
  // one out for good; the others wait for an administrator.
  if (user.group != ISecurityProvider::kAdministrators) return true;
  if (Sum(user.disabled_time, administrator_unlock_delay_) > Now()) return true;
  user.disabled_time = 0;
  user.failed_attempts = 0;
  user.bad_password_time = 0;
  SaveCounters(*entry);
  return false;
}

bool UserMap::Impl::IsExpired(Users::const_iterator entry) const {
  if (entry == users_.end() || !policy_enforced_) return false;
  const uint32_t set = entry->second.password_time;
  if (entry->first == User::kAnonymousUsername || set == kNeverExpires) return false;
  if (set == kExpiredNow) return true;
  return Sum(set, password_lifetime_ * kSecondsPerDay) < Now();
}

int UserMap::Impl::CheckLength(size_t length) const {
  if (length < minimum_password_length_) return kPasswordTooShort;
  if (length > maximum_password_length_) return kPasswordTooLong;
  return kOk;
}

int UserMap::Impl::ValidatePassword(const std::string& name, const std::string& current,
                                    const std::string& proposed) {
  if (name == User::kAnonymousUsername) return kNobodyPassword;
  // Contract: first of all, so that a wrong present password counts whatever is proposed.
  if (!current.empty()) {
    Group group = ISecurityProvider::kNoSuchUser;
    if (const int code = ValidateUser(name, current, group); code != kOk) return code;
  }
  if (const int code = CheckLength(proposed.size()); code != kOk) return code;
  if (!policy_enforced_ || name.empty()) return kOk;
  const auto entry = users_.find(name);
  if (entry == users_.end()) return kOk;
  // Contract: the present password is not in the history, so it may be proposed again; an expired
  // one that is stays expired.
  if (MatchOldPassword(name, proposed)) return kOldPassword;
  if (IsDisabled(entry) || IsExpired(entry)) return kOk;
  if (Sum(entry->second.password_time, minimum_password_age_ * kSecondsPerDay) > Now()) {
    return kPasswordTooYoung;
  }
  return kOk;
}

int UserMap::Impl::Expires(const std::string& name, std::string& when) const {
  when.clear();
  const auto entry = users_.find(name);
  if (entry == users_.end() || !policy_enforced_ || name == User::kAnonymousUsername ||
      entry->second.password_time == kNeverExpires) {
    return kExpiresNever;
  }
  const auto expiry =
      static_cast<int64_t>(Sum(entry->second.password_time, password_lifetime_ * kSecondsPerDay));
  when = tevra::osa::DateTime(tevra::osa::TimeStruct(expiry, 0)).ToString(0);
  return static_cast<int>((int64_t{Now()} - expiry) / int64_t{kSecondsPerDay});
}

}  // namespace vigila::server

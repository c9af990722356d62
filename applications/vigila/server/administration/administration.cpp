// Accounts, and passwords in general.
#include "vigila/server/administration/administration.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "krand/base64/base64.h"
#include "tevra/osa/time.h"
#include "vigila/contract/limits.h"
#include "vigila/contract/result_codes.h"
#include "vigila/server/administration/answer.h"
#include "vigila/server/administration/authority.h"
#include "vigila/server/password_score.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/server_env.h"

namespace vigila::server {
namespace {

using krand::lib::Base64;

struct Reason {
  int code;
  const char* word;
};

constexpr Reason kReasons[] = {
    {contract::kPasswordTooShort, "too-short"}, {contract::kPasswordTooLong, "too-long"},
    {contract::kNobodyPassword, "nobody"},      {contract::kOldPassword, "used-before"},
    {contract::kPasswordTooYoung, "too-young"},
};

json::Object DescribeAccount(const AccountState& state, size_t sessions) {
  json::Object account;
  answer::SetName(account, "Name", state.name);
  answer::SetGroup(account, state.group);
  account["Passwordless"] = json::Boolean(!state.has_password);
  account["Locked"] = json::Boolean(state.locked);
  account["LockedSince"] = answer::Time(state.locked_since);
  account["LockedUntil"] = answer::Time(state.locked_until);
  account["WrongPasswords"] = json::Number(state.wrong_passwords);
  account["Expired"] = json::Boolean(state.expired);
  account["Expires"] = answer::Time(state.expires);
  account["PasswordSet"] = answer::Time(state.password_set);
  account["LastLogon"] = answer::Time(state.last_logon);
  account["Sessions"] = json::Number(sessions);
  return account;
}

}  // namespace

Administration::Administration(ServerEnv& env) : env_(env), backups_(env), start_(Now()) {}

int64_t Administration::Now() const {
  tevra::osa::TimeStruct now;
  env_.GetTimeSource()->GetTime(now);
  return now.seconds;
}

std::string Administration::GetAccounts(const Caller& caller, const std::string& cursor,
                                        uint32_t limit) {
  SecurityProvider& provider = *env_.GetSecurityProvider();
  Authority(caller, provider).RequireAdministrator();
  const std::string after = Base64::Decode(cursor);
  if (after.empty() && !cursor.empty()) return answer::CodeAlone(contract::kMalformed);
  const size_t size = std::min(limit == 0 ? kDefaultPage : limit, kLongestPage);
  // One more than is shown tells whether there is a next page.
  std::vector<AccountState> states = provider.Users().ListStates(after, size + 1);
  const bool more = states.size() > size;
  if (more) states.pop_back();

  json::Array accounts;
  for (const AccountState& state : states) {
    accounts.push_back(DescribeAccount(state, env_.GetSessionManager().Count(state.name)));
  }
  json::Object object = answer::WithCode(contract::kApplied);
  object["Accounts"] = std::move(accounts);
  object["Total"] = json::Number(provider.Users().Size());
  object["LogonsKnownSince"] = answer::Time(start_);
  if (more) object["Next"] = json::String(Base64::Encode(states.back().name));
  return answer::Text(std::move(object));
}

std::string Administration::GetAccount(const Caller& caller, const std::string& name) {
  SecurityProvider& provider = *env_.GetSecurityProvider();
  Authority(caller, provider).RequireAdministratorOr(name);
  const std::optional<AccountState> state = provider.Users().GetState(name);
  if (!state) return answer::CodeAlone(contract::kUnknownUser);
  json::Object object = answer::WithCode(contract::kApplied);
  object["Account"] = DescribeAccount(*state, env_.GetSessionManager().Count(name));
  object["LogonsKnownSince"] = answer::Time(start_);
  return answer::Text(std::move(object));
}

std::string Administration::UnlockAccount(const Caller& caller, const std::string& name) {
  SecurityProvider& provider = *env_.GetSecurityProvider();
  Authority(caller, provider).RequireAdministrator();
  bool was_locked = false;
  const int code = provider.Users().Unlock(name, was_locked);
  if (code != UserMap::kOk) return answer::CodeAlone(code);
  json::Object object = answer::WithCode(contract::kApplied);
  object["WasLocked"] = json::Boolean(was_locked);
  return answer::Text(std::move(object));
}

std::string Administration::CheckPassword(const Caller& caller, const std::string& name,
                                          const std::string& proposed) {
  SecurityProvider& provider = *env_.GetSecurityProvider();
  Authority(caller, provider).RequireAdministratorOr(name);
  const int verdict = provider.Users().ValidatePassword(name, "", proposed);
  json::Array reasons;
  for (const Reason& reason : kReasons) {
    if (reason.code == verdict) reasons.push_back(json::String(reason.word));
  }
  json::Object object = answer::WithCode(contract::kApplied);
  object["Accepted"] = json::Boolean(verdict == UserMap::kOk);
  object["Verdict"] = json::Number(verdict);
  // The patterns of the score take the square of the length; what is too long needs no score.
  if (proposed.size() <= contract::kMaxPasswordBytes) {
    object["Score"] = json::Number(PasswordScore::Of(proposed));
    for (const std::string& word : PasswordScore::Weaknesses(proposed)) {
      reasons.push_back(json::String(word));
    }
  }
  object["Reasons"] = std::move(reasons);
  return answer::Text(std::move(object));
}

std::string Administration::ChangePassword(const Caller& caller, const std::string& current,
                                           const std::string& proposed) {
  SecurityProvider& provider = *env_.GetSecurityProvider();
  const Authority authority(caller, provider);
  authority.RequireSession();
  UserMap& users = provider.Users();
  const std::string& name = authority.Name();
  // The store would not check an empty one, and would let a locked account go on guessing: its own
  // check of a present password ignores the lock. Whoever has found a session must not have it
  // easier to find the password than whoever has not.
  if (current.empty()) return answer::CodeAlone(contract::kWrongPassword);
  if (users.IsAccountDisabled(name)) return answer::CodeAlone(contract::kDisabled);
  if (const int code = users.ValidatePassword(name, current, proposed); code != UserMap::kOk) {
    return answer::CodeAlone(code);
  }
  UserMap change(nullptr);
  change.Set(name, proposed, users.GetGroup(name));
  const int merged = users.Merge(change);
  if (merged > UserMap::kOk) return answer::CodeAlone(merged);
  if (merged == UserMap::kMerged) provider.FireChangeListeners(true);
  json::Object object = answer::WithCode(contract::kApplied);
  object["Changed"] = json::Boolean(merged == UserMap::kMerged);
  return answer::Text(std::move(object));
}

}  // namespace vigila::server

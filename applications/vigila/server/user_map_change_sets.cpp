#include <algorithm>
#include <utility>

#include "tevra/osa/exception.h"
#include "vigila/server/session_manager.h"
#include "vigila/server/user_map_impl.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {

using tevra::core::SecretText;

// A merge as it will be, worked out on a copy. Until it is written no one sees anything of it.
struct UserMap::Impl::MergePlan {
  Users users;
  uint32_t administrators = 0;
  uint32_t now = 0;
  bool changed = false;
  // In name order: previous passwords for the histories, accounts whose sessions end.
  std::vector<std::pair<std::string, std::string>> old_passwords;
  std::vector<std::string> ended_sessions;

  void CountOut() {
    if (administrators != 0) --administrators;
  }
};

namespace {

std::string UserKey(const std::string& name) {
  return UserSettings::Key(UserSettings::kUserPrefix, name);
}

}  // namespace

void UserMap::Impl::Set(const std::string& name, const std::string& password, Group group) {
  if (!IsChangeSet()) throw tevra::osa::Exception("Use Merge() rather than Set()");
  const tevra::osa::MutexAutoLock lock(mutex_);
  MyUser& user = users_[name];
  // Contract: a name that is set twice keeps the last password and group.
  if (user.group == ISecurityProvider::kAdministrators) --administrator_count_;
  tevra::core::Wipe(user.password);
  user = MyUser();
  user.dirty = true;
  user.password = password;
  user.group = group;
  if (group == ISecurityProvider::kAdministrators) ++administrator_count_;
}

int UserMap::Impl::Merge(const Impl& change_set) {
  if (IsChangeSet()) throw tevra::osa::Exception("Use Set() rather than Merge()");
  if (!change_set.IsChangeSet()) {
    throw tevra::osa::Exception("Merge() takes change set as argument");
  }
  const uint32_t now = Now();
  const tevra::osa::MutexAutoLock lock(mutex_);
  for (const auto& [name, wanted] : change_set.users_) UserKey(name);  // throws for a bad name
  MergePlan plan;
  plan.users = users_;
  plan.administrators = administrator_count_;
  plan.now = now;
  for (auto& [name, user] : plan.users) user.dirty = false;
  for (const auto& [name, wanted] : change_set.users_) PlanEntry(plan, name, wanted);
  // Contract: a store that never had an administrator may go on without one.
  if (plan.administrators == 0 && administrator_count_ != 0) return kLastAdministrator;
  if (!plan.changed) return kOk;
  WritePlan(plan);
  if (ChangesAdministrators(plan)) UserSettings::Settle();
  AdoptPlan(plan);
  // Contract: negative for success, so that callers tell a change from none.
  return kMerged;
}

void UserMap::Impl::PlanEntry(MergePlan& plan, const std::string& name,
                              const MyUser& wanted) const {
  const SecretText password(wanted.password);
  const auto [entry, added] = plan.users.try_emplace(name);
  MyUser& user = entry->second;
  if (added) {
    // Without a password the account can be authorized for nothing until it is given one.
    if (!password.Empty()) user.password = vault_.Encrypt(password.View());
    user.group = wanted.group;
    if (wanted.group == ISecurityProvider::kAdministrators) ++plan.administrators;
    user.password_time = plan.now;
    user.dirty = true;
    plan.changed = true;
    return;
  }
  if (name != User::kAnonymousUsername) {
    if (user.group == ISecurityProvider::kAdministrators) plan.CountOut();
    if (wanted.group == ISecurityProvider::kAdministrators) ++plan.administrators;
  }
  // Contract: the present password once more is no change; counters, history and sessions stay.
  if (!password.Empty() && !vault_.Matches(user.password, password.View())) {
    PlanPassword(plan, name, user, password, wanted.group);
  } else if (user.group != wanted.group) {
    PlanGroup(plan, name, user, wanted.group);
  }
}

void UserMap::Impl::PlanPassword(MergePlan& plan, const std::string& name, MyUser& user,
                                 const SecretText& password, Group group) const {
  std::string stored = vault_.Encrypt(password.View());
  plan.old_passwords.emplace_back(name, std::move(user.password));
  user.password = std::move(stored);
  user.digest.clear();
  user.disabled_time = 0;
  user.failed_attempts = 0;
  user.bad_password_time = 0;
  user.password_time = plan.now;
  PlanGroup(plan, name, user, group);
}

// Contract: a change of the group ends the sessions, which hold the old rights, but leaves the
// counters; only a new password lets a locked account in again.
void UserMap::Impl::PlanGroup(MergePlan& plan, const std::string& name, MyUser& user, Group group) {
  user.group = group;
  user.dirty = true;
  plan.ended_sessions.push_back(name);
  plan.changed = true;
}

bool UserMap::Impl::IsAdministrator(const std::string& name) const {
  return GetGroup(name) == ISecurityProvider::kAdministrators;
}

bool UserMap::Impl::ChangesAdministrators(const MergePlan& plan) const {
  return std::any_of(plan.users.begin(), plan.users.end(), [this](const auto& entry) {
    const bool is = entry.second.group == ISecurityProvider::kAdministrators;
    return entry.second.dirty && is != IsAdministrator(entry.first);
  });
}

// All of it or nothing, durable with one flush.
void UserMap::Impl::WritePlan(const MergePlan& plan) const {
  UserSettings::Transaction transaction;
  if (plan.administrators != 0) UserSettings::NoteAdministrator();
  for (const auto& [name, stored] : plan.old_passwords) UpdateOldPasswords(name, stored);
  for (const auto& [name, user] : plan.users) {
    if (user.dirty) UserSettings::WriteJson(UserKey(name), user.ToJson());
  }
  transaction.Commit();
}

void UserMap::Impl::AdoptPlan(MergePlan& plan) {
  users_ = std::move(plan.users);
  administrator_count_ = plan.administrators;
  for (const std::string& name : plan.ended_sessions) sessions_->Invalidate(name);
  const auto nobody = users_.find(User::kAnonymousUsername);
  if (nobody == users_.end() || !nobody->second.dirty ||
      nobody->second.group == nobody_->GetGroup()) {
    return;
  }
  // Contract: after the write. The store keeps the group that was asked for; while the policy is
  // enforced "nobody" gets no more than its own.
  if (policy_enforced_) nobody->second.group = ISecurityProvider::kNobody;
  MakeNobodyEntry();
}

// Deliberate: name by name, sessions first: a deletion that fails takes accounts and settings back
// to what they were, but a session that was to end has ended. The histories stay behind, so that an
// account that is deleted and made again does not start over with its old passwords.
int UserMap::Impl::Delete(const Impl& change_set) {
  if (IsChangeSet()) throw tevra::osa::Exception("Use Set() rather than Delete()");
  if (!change_set.IsChangeSet()) {
    throw tevra::osa::Exception("Delete() takes change set as argument");
  }
  const tevra::osa::MutexAutoLock lock(mutex_);
  // Contract: counted by the groups that the change set names, not by those that are stored.
  const uint32_t deleted = change_set.administrator_count_;
  if (administrator_count_ != 0 && deleted >= administrator_count_) return kLastAdministrator;
  if (change_set.users_.empty()) return kOk;
  for (const auto& [name, unused] : change_set.users_) UserKey(name);  // throws for a bad name
  std::vector<Users::node_type> erased;
  erased.reserve(change_set.users_.size());
  UserSettings::Transaction transaction;
  try {
    for (const auto& [name, unused] : change_set.users_) {
      sessions_->Invalidate(name);
      UserSettings::Delete(UserKey(name));
      erased.push_back(users_.extract(name));
    }
    transaction.Commit();
  } catch (...) {
    for (Users::node_type& user : erased) users_.insert(std::move(user));
    throw;
  }
  if (std::any_of(erased.begin(), erased.end(), [](const Users::node_type& user) {
        return !user.empty() && user.mapped().group == ISecurityProvider::kAdministrators;
      })) {
    UserSettings::Settle();
  }
  if (administrator_count_ != 0) administrator_count_ -= deleted;
  return kOk;
}

}  // namespace vigila::server

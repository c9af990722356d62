#ifndef VIGILA_SERVER_USER_MAP_IMPL_H_
#define VIGILA_SERVER_USER_MAP_IMPL_H_

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tevra/core/logger.h"
#include "tevra/core/secret_text.h"
#include "tevra/osa/mutex.h"
#include "tevra/osa/time.h"
#include "vigila/contract/limits.h"
#include "vigila/server/passphrase_store.h"
#include "vigila/server/password_history.h"
#include "vigila/server/password_score.h"
#include "vigila/server/password_vault.h"
#include "vigila/server/user_map.h"

namespace vigila::server {

// What UserMap is made of. Every public operation of the facade that needs the accounts runs Init
// first; these operations rely on it. The mutex is held by Init, Set, Merge, Delete,
// Restore and the passphrase operations, each for its whole run, and is taken before the session
// manager's.
class UserMap::Impl final {
 public:
  using Group = ISecurityProvider::Group;

  // One account as stored, or one entry of a change set.
  struct MyUser {
    MyUser() = default;
    // Reads an account object; throws on one that is no JSON, lacks "Groups" or holds a wrong type.
    explicit MyUser(const std::string& json);
    MyUser(const MyUser&) = default;
    MyUser& operator=(const MyUser&) = default;
    virtual ~MyUser() = default;

    // The account object, in one line without blanks.
    std::string ToJson() const;

    std::string password;  // at-rest form; in a change set the clear text
    std::string digest;    // the HA1 once it was asked for; never stored
    Group group = ISecurityProvider::kNoGroup;
    uint32_t disabled_time = 0;  // seconds since the epoch; 0: not disabled
    uint32_t failed_attempts = 0;
    uint32_t bad_password_time = 0;  // of the first failure of a series; 0: none
    uint32_t password_time = 0;      // when it was set; kNeverExpires and kExpiredNow apart
    uint32_t last_logon = 0;         // when a session was last opened; never stored
    bool dirty = false;
  };

  using MyPassphrase = Passphrase;
  using Users = std::map<std::string, MyUser>;
  using PermissionTable = std::map<std::string, uint32_t>;

  static constexpr uint32_t kNeverExpires = 0;
  static constexpr uint32_t kExpiredNow = 1;
  static constexpr int kExpiresNever = 0x7fffffff;
  static constexpr uint32_t kSecondsPerDay = 86400;

  // All null for a change set; else borrowed.
  Impl(const tevra::osa::ITimeSource* time_source, SessionManager* sessions, AtRestCipher* cipher);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  bool IsChangeSet() const { return time_source_ == nullptr; }
  // Seconds since the epoch; 0 for a change set.
  uint32_t Now() const;

  // Loading.
  void Init() TEVRA_EXCLUDES(mutex_);
  void EnforcePolicy(bool enforce) { policy_enforced_ = enforce; }
  void SetUniquePasswordDevice(bool unique) { unique_password_device_ = unique; }
  bool IsUniquePasswordDevice() const { return unique_password_device_; }

  // Queries.
  unsigned Size() const { return static_cast<unsigned>(users_.size()); }
  bool Exists(const std::string& name) const { return users_.contains(name); }
  Group GetGroup(const std::string& name) const;
  std::string GetAllJson() const;
  std::set<_uuid_t> GetPermissions(Group group) const;
  static std::set<_uuid_t> GetPermissions(const PermissionTable& table, Group group);
  User::Rights GetRights(Group group);
  User* GetNobody() const { return nobody_.get(); }
  bool NoAdministratorsYet() const { return administrator_count_ == 0; }
  const Users& GetUsers() const { return users_; }

  // Administration.
  std::vector<AccountState> ListStates(const std::string& after, size_t limit) const;
  std::optional<AccountState> GetState(const std::string& name) const;
  int Unlock(const std::string& name, bool& was_locked);
  void NoteLogon(const std::string& name);

  // Validation. `group` kNoSuchUser on entry asks for the bare password check.
  int ValidateUser(const std::string& name, const std::string& password, Group& group);
  int ValidatePassword(const std::string& name, const std::string& current,
                       const std::string& proposed);
  bool IsAccountDisabled(const std::string& name) { return IsDisabled(users_.find(name)); }
  bool IsAccountExpired(const std::string& name) { return IsExpired(users_.find(name)); }
  int Expires(const std::string& name, std::string& when) const;

  // Digests.
  int GetHA1(const std::string& name, std::string& ha1);
  int ValidateWsseDigest(const std::string& name, const std::string& digest,
                         const std::string& nonce, const std::string& created, std::string& ha1);

  // Change sets.
  void Set(const std::string& name, const std::string& password, Group group)
      TEVRA_EXCLUDES(mutex_);
  int Merge(const Impl& change_set) TEVRA_EXCLUDES(mutex_);
  int Delete(const Impl& change_set) TEVRA_EXCLUDES(mutex_);
  void Restore(const StoreImage& image, const std::map<std::string, std::string>& rule_settings)
      TEVRA_EXCLUDES(mutex_);

  // Quality and history.
  int CalculatePasswordScore(const std::string& password) const {
    return PasswordScore::Of(password);
  }
  int CheckRepetition(int block_length, const std::string& text) const {
    return PasswordScore::LengthWithoutRepetition(block_length, text);
  }
  bool MatchOldPassword(const std::string& name, const std::string& proposed) const {
    return history_.Contains(name, proposed);
  }
  void UpdateOldPasswords(const std::string& name, const std::string& stored_password) const {
    history_.Append(name, stored_password);
  }

  // Passphrases.
  std::string AddPassphrase(const std::string& phrase, const std::string& alias)
      TEVRA_EXCLUDES(mutex_);
  std::string GetPassphrase(const std::string& id) const TEVRA_EXCLUDES(mutex_);
  std::string GetPassphrases() const TEVRA_EXCLUDES(mutex_);
  bool DeletePassphrase(const std::string& id) TEVRA_EXCLUDES(mutex_);

 private:
  struct MergePlan;

  void CheckNobodyUser() const;
  void PopulateMaps() TEVRA_REQUIRES(mutex_);
  Users LoadUsers() const;
  // What a restart changes in an account while the policy is enforced.
  void EnforceAtLoad(MyUser& user, uint32_t now) const;
  void FillPermissionTable();
  void MakeNobodyEntry();

  AccountState StateOf(const Users::value_type& entry) const;
  bool IsDisabled(Users::iterator entry);
  bool IsExpired(Users::const_iterator entry) const;
  // True when the account is disabled now.
  bool HandleWrongPassword(Users::value_type& entry);
  void HandleCorrectPassword(Users::value_type& entry);
  int RefuseWrongPassword(Users::value_type& entry);
  int CheckLength(size_t length) const;
  // For counters: a failed write leaves its Error line and the logon goes on.
  void SaveCounters(const Users::value_type& entry) const;

  void PlanEntry(MergePlan& plan, const std::string& name, const MyUser& wanted) const;
  void PlanPassword(MergePlan& plan, const std::string& name, MyUser& user,
                    const tevra::core::SecretText& password, Group group) const;
  static void PlanGroup(MergePlan& plan, const std::string& name, MyUser& user, Group group);
  bool IsAdministrator(const std::string& name) const;
  // Which accounts are administrators is settled before the answer: no damage to the store may undo
  // it and leave the device with others, or with none.
  bool ChangesAdministrators(const MergePlan& plan) const;
  void WritePlan(const MergePlan& plan) const;
  void AdoptPlan(MergePlan& plan) TEVRA_REQUIRES(mutex_);
  void AdoptImage(const StoreImage& image) TEVRA_REQUIRES(mutex_);
  // Takes over accounts as they are stored.
  void AdoptUsers(Users users) TEVRA_REQUIRES(mutex_);

  // For a text between double quotes: it must not be able to end them and add members of its own.
  static std::string Escape(const std::string& text);

  // Constant after construction or start.
  const tevra::osa::ITimeSource* const time_source_;
  SessionManager* const sessions_;
  tevra::core::Logger* const logger_;
  bool unique_password_device_;
  bool policy_enforced_ = false;
  const uint32_t minimum_password_length_ = contract::kMinPasswordBytes;
  const uint32_t maximum_password_length_ = contract::kMaxPasswordBytes;
  const uint32_t administrator_unlock_delay_ = 900;  // seconds
  const uint32_t failure_period_ = 3600;             // seconds
  const uint32_t retry_delay_ = 4;                   // seconds
  const uint32_t maximum_failed_attempts_ = 3;
  const uint32_t minimum_password_age_ = 1;  // days
  const uint32_t password_lifetime_ = 60;    // days
  const uint32_t old_passwords_kept_ = 5;
  const PasswordVault vault_;
  const PasswordHistory history_;

  mutable tevra::osa::Mutex mutex_;
  bool initialized_ TEVRA_GUARDED_BY(mutex_);
  PassphraseStore passphrases_ TEVRA_GUARDED_BY(mutex_);

  // One request at a time.
  Users users_;
  std::unique_ptr<User> nobody_;
  PermissionTable permission_table_;
  std::map<Group, User::Rights> rights_;  // of the groups asked for so far
  uint32_t administrator_count_ = 0;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_USER_MAP_IMPL_H_

#ifndef VIGILA_SERVER_USER_MAP_H_
#define VIGILA_SERVER_USER_MAP_H_

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tevra/interfaces/i_security_provider.h"
#include "tevra/osa/time.h"
#include "utilc/uuid.h"
#include "vigila/contract/result_codes.h"
#include "vigila/model/user.h"
#include "vigila/server/account_state.h"

namespace vigila::server {

class AtRestCipher;
class ServerEnv;
class SessionManager;
struct StoreImage;

// The local accounts. With an environment it is the store: it loads from the settings on the first
// call, writes every change through at once, and holds the other services' passphrases too. Without
// one it is a change set: entries to add, modify or delete, filled by Set and handed to a store.
//
// Account operations are called one at a time (the bus's dispatch thread); passphrase operations
// may be called from any thread. Refusals are result codes. Misuse, settings that cannot be read or
// written, and passwords that cannot be encrypted throw tevra::osa::Exception; the store and the
// settings are then as before the call, and a load that failed is tried again by the next call.
// Times are whole seconds since the epoch.
class UserMap {
 public:
  using ISecurityProvider = tevra::interfaces::ISecurityProvider;
  using User = model::User;

  class Impl;

  using enum contract::StoreResult;

  // A store over the environment's clock, sessions and cipher, which must outlive it, or with null
  // a change set. Reads nothing yet.
  explicit UserMap(ServerEnv* env);
  // A store over a clock, sessions and a cipher of the caller's, which must outlive it.
  UserMap(const tevra::osa::ITimeSource& time_source, SessionManager& sessions,
          AtRestCipher& cipher);
  ~UserMap();
  UserMap(const UserMap&) = delete;
  UserMap& operator=(const UserMap&) = delete;

  // Switches lock-out, expiry and password age on; off otherwise. Only before the first load.
  void EnforcePolicy(bool enforce);
  // Notes whether the device reports the unique-password feature.
  void SetUniquePasswordDevice(bool unique);
  bool IsUniquePasswordDevice() const;

  // Number of accounts, "nobody" included.
  unsigned Size() const;
  bool Exists(const std::string& name) const;
  // kNoSuchUser for an unknown name.
  ISecurityProvider::Group GetGroup(const std::string& name) const;
  // {"Users":[{"Name":"…","Group":…},…]} in name order, on one line.
  std::string GetAllJson() const;
  std::set<_uuid_t> GetPermissions(ISecurityProvider::Group group) const;
  // The same set for every call with the group.
  model::User::Rights GetRights(ISecurityProvider::Group group) const;

  // Up to `limit` accounts behind the name `after`, in name order.
  std::vector<AccountState> ListStates(const std::string& after, size_t limit) const;
  std::optional<AccountState> GetState(const std::string& name) const;
  // Forgets the wrong passwords of an account, which ends its lock-out; the password stays. kOk,
  // with whether it was locked, or kNoSuchUser.
  int Unlock(const std::string& name, bool& was_locked);
  // Notes that the account has logged on now.
  void NoteLogon(const std::string& name);

  // kOk with the account's group, else kNoSuchUser, kDisabled, kExpired or kWrongPassword with
  // `group` kNoGroup.
  int ValidateUser(const std::string& name, const std::string& password,
                   ISecurityProvider::Group& group) const;
  // Whether `name` may take `proposed` as its password. An empty `current` is not checked, any
  // other must be the present password.
  int ValidatePassword(const std::string& name, const std::string& current,
                       const std::string& proposed) const;
  // Asking lets an administrator in again whose lock-out is over.
  bool IsAccountDisabled(const std::string& name) const;
  bool IsAccountExpired(const std::string& name) const;
  // Days since the password expired, negative while it is valid; 0x7fffffff and an empty `when` for
  // never. `when` is the instant of expiry in ISO 8601.
  int AccountExpires(const std::string& name, std::string& when) const;

  // kOk with the account's HTTP digest HA1, else kNoSuchUser, kDisabled, kExpired or kNoDigest with
  // `ha1` untouched. Counts no failure.
  int GetHA1(const std::string& name, std::string& ha1) const;
  // Checks a UsernameToken password digest; `digest` and `nonce` in base64, `created` as received.
  // kOk with the HA1, else kBadDigestLength, kBadNonce, kNoSuchUser, kDisabled, kExpired or
  // kWrongPassword.
  int ValidateWsseDigest(const std::string& name, const std::string& digest,
                         const std::string& nonce, const std::string& created,
                         std::string& ha1) const;

  // Change sets only: adds or replaces an entry. The password is in clear, empty to keep the
  // present one, and is wiped with the change set.
  void Set(const std::string& name, const std::string& password, ISecurityProvider::Group group);
  // Stores only: adds and modifies all accounts of a change set, or none of them. kOk when
  // nothing had to change, kMerged or kLastAdministrator.
  int Merge(const UserMap& change_set);
  // Stores only: deletes all accounts of a change set, or none of them; a deletion that throws may
  // have ended their sessions. kOk or kLastAdministrator.
  int Delete(const UserMap& change_set);
  // Stores only: puts an image's accounts, histories and passphrases, and the given rule settings,
  // in the place of everything that was there, durably and as one, and ends all sessions.
  void Restore(const StoreImage& image, const std::map<std::string, std::string>& rule_settings);
  // The record of the anonymous account; the store's own, replaced when the account changes group.
  User* GetNobody() const;
  bool NoAdministratorsYet() const;

  // The new identifier; empty when the phrase is empty or could not be encrypted or written.
  std::string AddPassphrase(const std::string& phrase, const std::string& alias);
  // Empty for an unknown identifier.
  std::string GetPassphrase(const std::string& id) const;
  // {"Passphrases":[{"Alias":"…","ID":"…"},…]} in identifier order.
  std::string GetPassphrases() const;
  bool DeletePassphrase(const std::string& id);

 private:
  const std::unique_ptr<Impl> impl_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_USER_MAP_H_

#ifndef TEVRA_INTERFACES_I_ADMINISTRATION_H_
#define TEVRA_INTERFACES_I_ADMINISTRATION_H_

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace tevra::msgbus {
class IMsgBus;
struct ServedInterface;
}  // namespace tevra::msgbus

namespace tevra::interfaces {

// Administration beside ISecurityProvider, at the same destination: what the slots of that contract
// do not carry. Shared by the server's implementation and the clients' proxy.
//
// Each operation is done on behalf of a person, whose session token comes first. A caller with the
// role admin may leave the token empty. Any other needs the role service and the token of a living
// administrator's session, or of any living session for what concerns that session's own account. A
// token that is given is judged, whatever the caller's role. No operation renews an idle time.
//
// Every answer is a JSON object whose member "Code" is 0, or says by number why nothing was done:
// the result codes of the accounts. Callers ignore members that they do not know. Names are bytes:
// "Name" where they are UTF-8, else "NameBase64". Times are seconds since the epoch, null for never
// or not known. docs/reference/bus.md lists the members.
//
// Operations throw AccessDenied to who may not ask, and tevra::osa::Exception when the store or the
// server fails.
class IAdministration {
 public:
  // With the number of the version: operations are added to an interface, and one that can only be
  // changed comes in an interface of the next number.
  static constexpr const char* kInterface = "tevra.interfaces.IAdministration1";

  // Entries of one page, the default for a `limit` of 0. A higher limit is taken for the highest.
  static constexpr uint32_t kDefaultPage = 100;
  static constexpr uint32_t kLongestPage = 200;

  // Who asks. A client gives the token; the server's side of the bus adds what it knows itself.
  struct Caller {
    // A caller that holds the role admin only if the bus says so.
    Caller(std::string session_token)  // NOLINT(google-explicit-constructor)
        : token(std::move(session_token)) {}
    Caller(const char* session_token)  // NOLINT(google-explicit-constructor)
        : token(session_token) {}

    std::string token;
    bool holds_admin_role = false;
  };

  virtual ~IAdministration() = default;

  // One page of the accounts in the order of their names, from behind `cursor`: empty for the first
  // page, then what the page before answered as "Next".
  virtual std::string GetAccounts(const Caller& caller, const std::string& cursor,
                                  uint32_t limit) = 0;
  virtual std::string GetAccount(const Caller& caller, const std::string& name) = 0;
  // Forgets the wrong passwords of an account; its password stays.
  virtual std::string UnlockAccount(const Caller& caller, const std::string& name) = 0;

  // One page of the sessions of `user`, of everybody when it is empty.
  virtual std::string GetSessions(const Caller& caller, const std::string& user,
                                  const std::string& cursor, uint32_t limit) = 0;
  // Ends the session with this identifier, which is not its token.
  virtual std::string EndSession(const Caller& caller, const std::string& id) = 0;
  // Ends every session of `user`, or of everybody ("*"); with `spare_own` all but the caller's own.
  virtual std::string EndSessions(const Caller& caller, const std::string& user,
                                  bool spare_own) = 0;
  // Notes from where the caller's own session is used: an address, or what a front knows in its
  // place, in UTF-8.
  virtual std::string SetSessionSource(const Caller& caller, const std::string& source) = 0;

  // Why `path` is open or closed to an account, "nobody" being the caller without a session.
  virtual std::string ExplainAccount(const Caller& caller, const std::string& name,
                                     const std::string& path) = 0;
  // The same for a session, by its token; one that does not live is judged as "nobody".
  virtual std::string ExplainSession(const Caller& caller, const std::string& token,
                                     const std::string& path) = 0;
  // What would change if the changeable rule of `path` were `rule`; changes nothing.
  virtual std::string GetRuleEffect(const Caller& caller, const std::string& path,
                                    const std::string& rule) = 0;

  // How good `proposed` is, and whether `name` may take it; an empty or unknown name stands for an
  // account that is still to be added.
  virtual std::string CheckPassword(const Caller& caller, const std::string& name,
                                    const std::string& proposed) = 0;
  // Changes the password of the caller's own account, which ends all its sessions.
  virtual std::string ChangePassword(const Caller& caller, const std::string& current,
                                     const std::string& proposed) = 0;

  // Begins a backup of accounts, histories, passphrases and rules, encrypted under `passphrase`;
  // answers its identifier.
  virtual std::string StartBackup(const Caller& caller, const std::string& passphrase) = 0;
  // Whether the backup is ready, and then the piece of it from `offset` on. The last piece ends it.
  virtual std::string GetBackup(const Caller& caller, const std::string& id, uint32_t offset) = 0;
  // Gives the server one more piece of a backup, which begins at `offset`; the first with an empty
  // `id`, which is answered.
  virtual std::string PutBackup(const Caller& caller, const std::string& id, uint32_t offset,
                                const std::string& piece) = 0;
  // Begins to find out what the backup that was put would change; changes nothing.
  virtual std::string StartRestore(const Caller& caller, const std::string& id,
                                   const std::string& passphrase) = 0;
  // Whether that is known, and then what.
  virtual std::string GetRestorePlan(const Caller& caller, const std::string& id) = 0;
  // Puts the backup in the place of what the device has, as one change, and ends all sessions.
  virtual std::string CommitRestore(const Caller& caller, const std::string& id) = 0;

  // The bus-side server of an implementation; destroying it ends the service.
  class IServer {
   public:
    virtual ~IServer() = default;
    // Calls refused so far because the caller might not ask.
    virtual uint64_t RefusedCalls() const = 0;
  };

  // A proxy over `bus`, which must outlive it. Owned by the caller. Its operations throw as those
  // of ISecurityProvider's proxy. Any thread may call.
  static IAdministration* CreateClient(msgbus::IMsgBus* bus);
  // What tools of the bus can read beside the operations; run on the bus's dispatch thread.
  struct Counters {
    std::function<uint64_t()> accounts;
    std::function<uint64_t()> sessions;
  };
  // Serves `administration` on `bus` to callers with either role; both must outlive the server.
  // Owned by the caller. The destination's name is ISecurityProvider's server's to register.
  static IServer* CreateServer(msgbus::IMsgBus* bus, IAdministration* administration,
                               const Counters& counters);
  // What CreateServer serves, and to whom.
  static msgbus::ServedInterface Description();
};

}  // namespace tevra::interfaces

#endif  // TEVRA_INTERFACES_I_ADMINISTRATION_H_

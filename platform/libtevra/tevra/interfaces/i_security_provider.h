#ifndef TEVRA_INTERFACES_I_SECURITY_PROVIDER_H_
#define TEVRA_INTERFACES_I_SECURITY_PROVIDER_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tevra/core/delegate.h"
#include "tevra/osa/mutex.h"

namespace tevra::msgbus {
class IMsgBus;
struct ServedInterface;
}  // namespace tevra::msgbus

namespace tevra::interfaces {

template <typename Value>
class ListenerList;
class RevocationPage;

// The security service's contract, shared by the server's provider and the clients' proxy. The
// order of the virtual operations, destructor first, is the contract; so are the signatures.
//
// Listeners hear of changes that make earlier answers stale. The list and its mutex live here.
// Contract: listeners run with the mutex held, so that none is called any more once its removal has
// returned; one that adds, removes or calls listeners gets a tevra::osa::Exception. A child of fork
// must not use what it inherited: there, listeners are neither called nor added.
class ISecurityProvider {
 public:
  // One bit per group. A test for "at least group G" uses the mask of G and all stronger groups.
  enum Group : uint32_t {
    kNoGroup = 0,
    kAdministrators = 1,
    kManagers = 2,
    kOperators = 4,
    kViewers = 8,
    kNobody = 16,
    kNoSuchUser = 0x40000000,
  };

  // Name of the destination, the D-Bus interface and the change broadcast on the bus.
  static constexpr const char* kDestination = "tevra.SecurityProvider";
  static constexpr const char* kInterface = "tevra.interfaces.ISecurityProvider";
  static constexpr const char* kChangedSignal = "Changed";

  ISecurityProvider();
  virtual ~ISecurityProvider();
  ISecurityProvider(const ISecurityProvider&) = delete;
  ISecurityProvider& operator=(const ISecurityProvider&) = delete;

  virtual std::string Authenticate(bool reuse, const std::string& user64,
                                   const std::string& password64) = 0;
  virtual std::string AuthenticateHttp(bool reuse, const std::string& username,
                                       const std::string& nonce, const std::string& ha2, bool sess,
                                       const std::string& qop, const std::string& cnonce,
                                       const std::string& nc, const std::string& response) = 0;
  virtual std::string AuthenticateWsse(bool reuse, const std::string& username,
                                       const std::string& digest, const std::string& nonce,
                                       const std::string& created) = 0;
  // Throws tevra::osa::Exception(kUnimplemented) unless overridden, as does AllowHttpDigest.
  virtual bool TestLdap(const std::string&, const std::string&, const std::string&, int,
                        const std::string&, const std::string&, const std::string&,
                        const std::string&, const std::string&, const std::string&,
                        const std::string&) const;
  virtual void Invalidate(const std::string& name) = 0;
  virtual bool IsAuthenticated(const std::string& token) = 0;
  virtual bool IsProtected(const std::string& path) const = 0;
  virtual std::vector<std::string> GetAllowedPaths(const std::string& token) const = 0;
  virtual std::vector<std::string> GetAllowedPermissions(const std::string& token) const = 0;
  virtual std::string GetCredentials(const std::string& token) const = 0;
  virtual int GetExpiration(const std::string& name, std::string& expires) const = 0;
  virtual bool Authorize(const std::string& token, const std::string& path) = 0;
  virtual bool Logout(const std::string& token) = 0;
  virtual bool AllowHttpDigest() const;
  virtual std::string GetNonce() = 0;
  virtual std::string GetUsers() const = 0;
  virtual int AddUsers(const std::string& json) = 0;
  virtual int ModifyUsers(const std::string& json) = 0;
  virtual int DeleteUsers(const std::vector<std::string>& names) = 0;
  virtual int ValidatePassword(const std::string& name, const std::string& current,
                               const std::string& proposed) const = 0;
  virtual std::string AddPassphrase(const std::string& phrase, const std::string& alias) = 0;
  virtual std::string GetPassphrases() const = 0;
  virtual std::string GetPassphrase(const std::string& id) const = 0;
  virtual bool DeletePassphrase(const std::string& id) = 0;

  // The value is false when sessions have ended and nothing else has changed; listeners that look
  // at the revocation page know then which answers are stale.
  //
  // Takes ownership of the listener.
  void AddChangeListener(std::unique_ptr<core::IVoidDelegate1<bool>> listener);
  // Removes (and destroys) every listener whose target is `target`.
  void RemoveChangeListeners(void* target);
  // Calls every listener with `value`, holding the listener mutex. Whatever a listener throws is
  // logged and keeps no other from hearing.
  void FireChangeListeners(bool value);

  // The same for listeners that want the token of each session that is ended, by logging out, by an
  // invalidation or by a change of its account, before the operation that ends it returns. Expiry
  // of an idle session is not told.
  void AddSessionEndListener(std::unique_ptr<core::IVoidDelegate1<std::string>> listener);
  void RemoveSessionEndListeners(void* target);
  void FireSessionEndListeners(const std::string& token);

  // By which a caller knows whether the answers that it keeps still hold; null while that cannot be
  // known. Answers from within the process hold until a listener is told otherwise.
  std::shared_ptr<const RevocationPage> GetRevocationPage() const;
  // Answers so far that another server gave than the one that writes the page. While the number
  // grows between a question and its answer, the answer may be one of them.
  uint64_t StrayAnswers() const { return stray_answers_.load(std::memory_order_acquire); }

  // The bus-side server of a provider; destroying it ends the service.
  class IServer {
   public:
    virtual ~IServer() = default;
    // Calls refused so far because the caller lacked the role.
    virtual uint64_t RefusedCalls() const = 0;
  };

  // What CreateServer serves, and to whom.
  static msgbus::ServedInterface Description();

  // A proxy over `bus`, which must outlive it. Owned by the caller. Its operations throw
  // tevra::osa::Exception when the server cannot be reached, refuses the caller, or answers
  // nonsense; the message says which. Any thread may call.
  static ISecurityProvider* CreateClient(msgbus::IMsgBus* bus);
  // The same for who asks and ends: it subscribes to no change, so that the bus needs neither a
  // connection nor a thread to listen with, and its listeners hear of nothing.
  static ISecurityProvider* CreateOneShotClient(msgbus::IMsgBus* bus);
  // Serves `provider` on `bus` under kDestination, each operation for callers with its role only,
  // and broadcasts every change; both must outlive the server. Owned by the caller. Throws
  // tevra::osa::Exception when the bus refuses the name or the roles are misconfigured.
  static IServer* CreateServer(msgbus::IMsgBus* bus, ISecurityProvider* provider);

 protected:
  void SetRevocationPage(std::shared_ptr<const RevocationPage> page);
  void NoteAnswerOf(uint64_t instance) const;

 private:
  const std::unique_ptr<ListenerList<bool>> listeners_;
  const std::unique_ptr<ListenerList<std::string>> session_end_listeners_;

  mutable osa::Mutex page_mutex_;
  std::shared_ptr<const RevocationPage> page_ TEVRA_GUARDED_BY(page_mutex_);
  mutable std::atomic<uint64_t> stray_answers_{0};
};

}  // namespace tevra::interfaces

#endif  // TEVRA_INTERFACES_I_SECURITY_PROVIDER_H_

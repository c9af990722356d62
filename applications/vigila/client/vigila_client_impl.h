#ifndef VIGILA_CLIENT_VIGILA_CLIENT_IMPL_H_
#define VIGILA_CLIENT_VIGILA_CLIENT_IMPL_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tevra/core/logger.h"
#include "tevra/interfaces/answer_stamp.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/process_generation.h"
#include "tevra/osa/time.h"
#include "vigila/client/access_commands.h"
#include "vigila/client/authenticate_commands.h"
#include "vigila/client/cache.h"
#include "vigila/client/refusal_limiter.h"
#include "vigila/client/vigila_client.h"

namespace vigila::client {

// All of the client: the caches, the bus, the proxy. Owns the proxy, which holds a listener to this
// object until the destructor takes it back.
class VigilaClient::Impl final {
 public:
  using Provider = tevra::interfaces::ISecurityProvider;
  using Maker = std::function<std::unique_ptr<Impl>()>;

  // Over a bus of its own, with the monotonic clock.
  Impl();
  // Over any proxy, without a bus. `clock` is borrowed and must outlive this object.
  Impl(std::unique_ptr<Provider> provider, const tevra::osa::ITimeSource& clock);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // What every VigilaClient is built on; Impl() unless a test put a maker of its own in (an empty
  // one takes it out). Set it only while no client is being built.
  static std::unique_ptr<Impl> Make();
  static void SetMaker(Maker maker);

  bool Authenticate(const std::string& username, const std::string& password,
                    const std::string& mode, std::string& token);
  bool AuthenticateHttp(const std::string& username, const std::string& nonce,
                        const std::string& ha2, bool sess, const std::string& qop,
                        const std::string& cnonce, const std::string& nc,
                        const std::string& response, const std::string& mode, std::string& token);
  bool AuthenticateWsse(const std::string& username, const std::string& password_digest,
                        const std::string& nonce, const std::string& created,
                        const std::string& mode, std::string& token);
  bool Authorize(const std::string& token, const std::string& path);
  bool IsAuthenticated(const std::string& token);
  bool IsProtected(const std::string& path);
  std::optional<bool> TryAuthorize(const std::string& token, const std::string& path);
  std::optional<bool> TryIsProtected(const std::string& path);
  void Invalidate(const std::string& token);
  bool Logout(const std::string& token);
  std::string GetCredentials(const std::string& token);
  std::string GetNonce();
  std::vector<std::string> GetAllowedPaths(const std::string& token);
  std::vector<std::string> GetAllowedPermissions(const std::string& token);
  Counts GetCounts() const;

  // Empties the four caches, one after the other; the argument plays no part.
  void FlushCaches(bool);

  // In a child of fork the parent's client answers no to everything, and must not be destroyed:
  // another thread may have held any of its locks.
  bool IsInherited() const { return process_.IsInherited(); }

 private:
  // An answer, and whether it came out of a cache.
  template <typename T>
  struct Reply {
    typename T::Answer answer;
    bool cached;
  };

  // Asks the cache alone.
  template <typename T>
  bool Remember(Cache<T>& cache, const typename T::Key& question, typename T::Answer& answer);
  // Asks the cache, then the server by the command that `make` makes; keeps the server's answer
  // when `is_kept` says so. A hit makes no command: nothing is allocated for it.
  template <typename T, typename MakeCommand, typename IsKept>
  Reply<T> Ask(Cache<T>& cache, const typename T::Key& question, MakeCommand make, IsKept is_kept);
  // Lets the server answer. Whatever goes wrong leaves one line and the initial answer, and gives
  // false.
  bool RunCommand(Command& command);
  void ReportFailure();
  void ReportRefusal(const char* cause);
  void Subscribe();
  void OnChange(bool value);
  // Treats accounts or rules that have changed since the last question as the notification that is
  // on its way: true when it emptied the caches.
  bool HeedEpoch(const tevra::interfaces::AnswerStamp& stamp);
  bool IsOfPage(const tevra::interfaces::AnswerStamp& stamp, uint64_t strays, bool answered) const;
  bool ReportAuthorization(const std::string& token, const std::string& path, bool granted,
                           bool cached);
  bool ReportProtection(const std::string& path, bool is_protected, bool cached);
  bool ReportLogon(const std::string& username, const std::string& token, bool success);

  Cache<AuthenticateCommand> authenticate_cache_;
  Cache<AuthorizeCommand> authorize_cache_;
  Cache<IsAuthenticatedCommand> is_authenticated_cache_;
  Cache<IsProtectedCommand> is_protected_cache_;
  std::optional<tevra::msgbus::MsgBus> bus_;
  std::unique_ptr<Provider> provider_;
  tevra::core::Logger* const logger_;
  const tevra::osa::ProcessGeneration process_;
  std::atomic<uint64_t> misses_{0};
  std::atomic<uint64_t> failures_{0};
  // Instance and epoch of the page at the last question, added: an epoch that is raised changes the
  // sum, and so does another server.
  std::atomic<uint64_t> heeded_{0};
  RefusalLimiter refusals_;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_VIGILA_CLIENT_IMPL_H_

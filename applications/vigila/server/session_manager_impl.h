#ifndef VIGILA_SERVER_SESSION_MANAGER_IMPL_H_
#define VIGILA_SERVER_SESSION_MANAGER_IMPL_H_

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tevra/core/logger.h"
#include "tevra/osa/mutex.h"
#include "tevra/osa/time.h"
#include "vigila/model/user.h"
#include "vigila/server/random_device.h"
#include "vigila/server/session_info.h"
#include "vigila/server/session_manager.h"

namespace vigila::server {

// All state of the session manager; its operations are the manager's of the same names. Whatever
// touches several sessions touches them in ascending order of their tokens, the order of the log
// lines.
class SessionManager::SessionManagerImpl final {
 public:
  // Both are borrowed and must outlive this object.
  SessionManagerImpl(tevra::osa::ITimeSource* time_source, int timeout_secs, RandomDevice& device);
  ~SessionManagerImpl();
  SessionManagerImpl(const SessionManagerImpl&) = delete;
  SessionManagerImpl& operator=(const SessionManagerImpl&) = delete;

  std::string Enroll(model::User* user) TEVRA_EXCLUDES(mutex_);
  bool FindReusable(const std::string& name, const std::string& digest, std::string& token)
      TEVRA_EXCLUDES(mutex_);
  bool Refresh(const std::string& token) TEVRA_EXCLUDES(mutex_);
  model::User* GetUser(const std::string& token) TEVRA_EXCLUDES(mutex_);
  bool Cancel(const std::string& token) TEVRA_EXCLUDES(mutex_);
  void Invalidate(const std::string& name) TEVRA_EXCLUDES(mutex_);
  void SetTimeout(int seconds) TEVRA_EXCLUDES(mutex_);
  void TellEnds(std::function<void(const std::string& token)> on_end) TEVRA_EXCLUDES(mutex_);

  SessionPage List(const SessionQuery& query) TEVRA_EXCLUDES(mutex_);
  std::size_t Count(const std::string& name) TEVRA_EXCLUDES(mutex_);
  bool CancelById(uint64_t id, const std::string& name) TEVRA_EXCLUDES(mutex_);
  std::size_t InvalidateBut(const std::string& name, const std::string& spared)
      TEVRA_EXCLUDES(mutex_);
  void NoteScheme(const std::string& token, LogonScheme scheme) TEVRA_EXCLUDES(mutex_);
  bool NoteSource(const std::string& token, const std::string& source) TEVRA_EXCLUDES(mutex_);

 private:
  friend struct SessionManagerPeer;

  struct Session;
  using Sessions = std::unordered_map<std::string, Session>;
  using InOrder = std::list<Sessions::value_type*>;
  using Strays = std::multimap<tevra::osa::TimeStruct, Sessions::value_type*>;
  // Views of the keys of the session table.
  using Tokens = std::set<std::string_view>;

  struct Session {
    std::unique_ptr<model::User> user;
    InOrder::iterator place;                // unless it is a stray
    std::optional<Strays::iterator> stray;  // unless it is in order
    // For listings. The identifier is drawn when one first shows the session (0 before), so that a
    // logon does not wait for it.
    uint64_t id = 0;
    int64_t since = 0;  // seconds since the epoch
    std::unique_ptr<const std::string> source;
    LogonScheme scheme = LogonScheme::kUnknown;
  };

  void PruneSessions() TEVRA_EXCLUDES(mutex_);
  bool DoCancel(const std::string& token) TEVRA_REQUIRES(mutex_);
  bool IsExpired(const tevra::osa::TimeStruct& last_access, const tevra::osa::TimeStruct& now) const
      TEVRA_REQUIRES(mutex_);
  // Changes nothing when it throws.
  void AddByAge(Sessions::value_type& session, const tevra::osa::TimeStruct& last_access)
      TEVRA_REQUIRES(mutex_);
  void RemoveByAge(InOrder::iterator place, std::optional<Strays::iterator> stray)
      TEVRA_REQUIRES(mutex_);
  void RemoveByUser(const std::string& name, const std::string& token) TEVRA_REQUIRES(mutex_);
  // Takes the record unless it throws.
  void AddSession(const std::string& token, model::User* user) TEVRA_REQUIRES(mutex_);
  void DeleteSession(Sessions::iterator session) TEVRA_REQUIRES(mutex_);
  // Sorts the tokens; logs `how` each one ends and deletes it, in ascending order.
  void EndSessions(std::vector<std::string>& tokens, const char* how) TEVRA_REQUIRES(mutex_);
  void AppendSessionsOf(const Tokens& tokens, uint64_t after, const SessionQuery& query,
                        SessionPage& page) TEVRA_REQUIRES(mutex_);
  SessionInfo Describe(const Sessions::value_type& session) const TEVRA_REQUIRES(mutex_);
  static uint64_t IdOf(Session& session);
  std::string GenerateToken() const;

  tevra::osa::ITimeSource* const time_source_;
  RandomDevice& device_;
  tevra::core::Logger* const logger_;

  // Guarded by mutex_. Three views of the same sessions: by token, at a cost that their number does
  // not change; by age; by user name.
  Sessions sessions_ TEVRA_GUARDED_BY(mutex_);
  // By age, least recently used first: every session is either in order, where a clock that goes
  // forward puts it at no cost, or a stray that was stamped by a clock set back.
  InOrder in_order_ TEVRA_GUARDED_BY(mutex_);
  Strays strays_ TEVRA_GUARDED_BY(mutex_);
  std::map<std::string, Tokens> by_user_ TEVRA_GUARDED_BY(mutex_);
  tevra::osa::TimeSpan timeout_ TEVRA_GUARDED_BY(mutex_);
  std::function<void(const std::string& token)> on_end_ TEVRA_GUARDED_BY(mutex_);
  tevra::osa::Mutex mutex_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_SESSION_MANAGER_IMPL_H_

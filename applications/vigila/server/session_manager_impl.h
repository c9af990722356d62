#ifndef VIGILA_SERVER_SESSION_MANAGER_IMPL_H_
#define VIGILA_SERVER_SESSION_MANAGER_IMPL_H_

#include <map>
#include <memory>
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

 private:
  friend struct SessionManagerPeer;

  struct Session;
  using Sessions = std::unordered_map<std::string, Session>;
  using Ages = std::multimap<tevra::osa::TimeStruct, Sessions::value_type*>;
  // Views of the keys of the session table.
  using Tokens = std::set<std::string_view>;

  struct Session {
    std::unique_ptr<model::User> user;
    Ages::iterator age;
  };

  void PruneSessions() TEVRA_EXCLUDES(mutex_);
  bool DoCancel(const std::string& token) TEVRA_REQUIRES(mutex_);
  void AddSession(const std::string& token, model::User* user) TEVRA_REQUIRES(mutex_);
  void DeleteSession(Sessions::iterator session) TEVRA_REQUIRES(mutex_);
  // Logs `how` each one ends and deletes it, in ascending order.
  void EndSessions(std::vector<std::string> tokens, const char* how) TEVRA_REQUIRES(mutex_);
  std::string GenerateToken() const;

  tevra::osa::ITimeSource* const time_source_;
  RandomDevice& device_;
  tevra::core::Logger* const logger_;

  // Guarded by mutex_. Three views of the same sessions: found by token at a cost that their number
  // does not change; by age, least recently used first; by user name.
  Sessions sessions_ TEVRA_GUARDED_BY(mutex_);
  Ages by_age_ TEVRA_GUARDED_BY(mutex_);
  std::map<std::string, Tokens> by_user_ TEVRA_GUARDED_BY(mutex_);
  tevra::osa::TimeSpan timeout_ TEVRA_GUARDED_BY(mutex_);
  tevra::osa::Mutex mutex_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_SESSION_MANAGER_IMPL_H_

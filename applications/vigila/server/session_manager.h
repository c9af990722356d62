#ifndef VIGILA_SERVER_SESSION_MANAGER_H_
#define VIGILA_SERVER_SESSION_MANAGER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "vigila/contract/limits.h"
#include "vigila/server/export.h"
#include "vigila/server/session_info.h"

namespace tevra::osa {
class ITimeSource;
}

namespace vigila::model {
class User;
}

namespace vigila::server {

// The logged-on sessions: token to user record, with an idle time-out. Expiry is lazy: every
// operation but Invalidate and SetTimeout first ends what has expired, at a cost that depends on
// how much has expired and not on how much lives.
//
// Owns the records of the sessions that live. A record that GetUser hands out is destroyed when its
// session ends: keep it for the request at hand only.
//
// Any thread may call; requests arrive one at a time, which is what makes GetUser's result usable.
class VIGILA_EXPORT SessionManager {
 public:
  class __attribute__((visibility("hidden"))) SessionManagerImpl;

  static constexpr int kDefaultTimeoutSecs = contract::kSessionTimeoutSecs;

  // `time_source` is borrowed and must outlive the manager.
  SessionManager(tevra::osa::ITimeSource* time_source, int timeout_secs);
  virtual ~SessionManager();
  SessionManager(const SessionManager&) = delete;
  SessionManager& operator=(const SessionManager&) = delete;

  // Opens a session for `user` and returns its token: eight upper-case hexadecimal digits. The
  // record is the manager's from then on, except when the answer is "" (null record) or "NO_TOKEN"
  // (the anonymous account): then nothing is stored and the record stays the caller's.
  std::string Enroll(model::User* user);
  // Finds the session of `name` with the smallest token that may be shared and whose record matches
  // `digest`. Leaves `token` alone when there is none. Does not restart the session's idle timer.
  bool FindReusable(const std::string& name, const std::string& digest, std::string& token) const;
  // Restarts the idle timer; false when there is no such session.
  bool Refresh(const std::string& token);
  // The session's record, borrowed, or null.
  model::User* GetUser(const std::string& token);
  // Ends one session; false when there is no such session.
  bool Cancel(const std::string& token);
  // Ends every session of the user `name`; "*" ends everybody's.
  void Invalidate(const std::string& name);
  // Holds for the living sessions too.
  void SetTimeout(int seconds);

  // Has `on_end` told the token of each session that Cancel or Invalidate ends, once it has ended
  // and before they return. Idle sessions that expire are not told: whoever goes on using one knows
  // only what the server said before. `on_end` must not call the manager. Before the first request.
  void TellEnds(std::function<void(const std::string& token)> on_end);

  // For people who look after sessions. None of these restarts an idle timer.
  //
  // Costs what the users on the page have in sessions.
  SessionPage List(const SessionQuery& query);
  // Sessions of the user `name`, of everybody when it is empty.
  std::size_t Count(const std::string& name);
  // Ends the session that was listed under `id`, if it is one of the user `name` or `name` is
  // empty; false when there is no such session.
  bool CancelById(uint64_t id, const std::string& name);
  // As Invalidate, but for the session with the token `spared`; the number of sessions ended.
  std::size_t InvalidateBut(const std::string& name, const std::string& spared);
  // What a listing says of a session; no session, nothing noted.
  void NoteScheme(const std::string& token, LogonScheme scheme);
  bool NoteSource(const std::string& token, const std::string& source);

 private:
  const std::unique_ptr<SessionManagerImpl> impl_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_SESSION_MANAGER_H_

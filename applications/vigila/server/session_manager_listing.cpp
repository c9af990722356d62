// Sessions as people see them: listed, and ended by what is shown of them.
#include <algorithm>
#include <iterator>
#include <utility>

#include "utilc/randbytes.h"
#include "vigila/server/session_manager_impl.h"

namespace vigila::server {

using tevra::osa::MutexAutoLock;
using tevra::osa::TimeStruct;

SessionPage SessionManager::SessionManagerImpl::List(const SessionQuery& query) {
  PruneSessions();
  MutexAutoLock lock(mutex_);
  SessionPage page;
  auto user = by_user_.lower_bound(std::max(query.user, query.after_user));
  auto end = by_user_.end();
  page.total = sessions_.size();
  if (!query.user.empty()) {
    user = by_user_.find(query.user);
    page.total = user == end ? 0 : user->second.size();
    if (user != end) end = std::next(user);
  }
  for (; user != end && !page.more; ++user) {
    const uint64_t after = user->first == query.after_user ? query.after_id : 0;
    AppendSessionsOf(user->second, after, query, page);
  }
  return page;
}

void SessionManager::SessionManagerImpl::AppendSessionsOf(const Tokens& tokens, uint64_t after,
                                                          const SessionQuery& query,
                                                          SessionPage& page) {
  std::vector<std::pair<uint64_t, const Sessions::value_type*>> found;
  for (const std::string_view token : tokens) {
    Sessions::value_type& session = *sessions_.find(std::string(token));
    const uint64_t id = IdOf(session.second);
    if (id > after) found.emplace_back(id, &session);
  }
  std::sort(found.begin(), found.end());
  for (const auto& [id, session] : found) {
    page.more = page.sessions.size() >= query.limit;
    if (page.more) return;
    page.sessions.push_back(Describe(*session));
    page.sessions.back().own = session->first == query.own_token;
  }
}

SessionInfo SessionManager::SessionManagerImpl::Describe(
    const Sessions::value_type& session) const {
  const model::User& user = *session.second.user;
  TimeStruct ends = user.LastAccess();
  ends += timeout_.AsMicroseconds();
  return {session.second.id,         user.Name(),
          user.GetGroup(),           session.second.since,
          user.LastAccess().seconds, ends.seconds,
          session.second.scheme,     session.second.source ? *session.second.source : std::string(),
          user.IsReusable(),         false};
}

uint64_t SessionManager::SessionManagerImpl::IdOf(Session& session) {
  while (session.id == 0) randbytes(&session.id, sizeof(session.id));
  return session.id;
}

std::size_t SessionManager::SessionManagerImpl::Count(const std::string& name) {
  PruneSessions();
  MutexAutoLock lock(mutex_);
  if (name.empty()) return sessions_.size();
  const auto tokens = by_user_.find(name);
  return tokens == by_user_.end() ? 0 : tokens->second.size();
}

bool SessionManager::SessionManagerImpl::CancelById(uint64_t id, const std::string& name) {
  PruneSessions();
  MutexAutoLock lock(mutex_);
  if (id == 0) return false;
  const auto has_id = [&](const auto& session) { return session.second.id == id; };
  auto found = sessions_.end();
  if (name.empty()) {
    found = std::find_if(sessions_.begin(), sessions_.end(), has_id);
  } else if (const auto user = by_user_.find(name); user != by_user_.end()) {
    for (const std::string_view token : user->second) {
      const auto session = sessions_.find(std::string(token));
      if (has_id(*session)) found = session;
    }
  }
  return found != sessions_.end() && DoCancel(std::string(found->first));
}

void SessionManager::SessionManagerImpl::NoteScheme(const std::string& token, LogonScheme scheme) {
  MutexAutoLock lock(mutex_);
  if (const auto found = sessions_.find(token); found != sessions_.end()) {
    found->second.scheme = scheme;
  }
}

bool SessionManager::SessionManagerImpl::NoteSource(const std::string& token,
                                                    const std::string& source) {
  PruneSessions();
  MutexAutoLock lock(mutex_);
  const auto found = sessions_.find(token);
  if (found == sessions_.end()) return false;
  found->second.source = std::make_unique<const std::string>(source);
  return true;
}

}  // namespace vigila::server

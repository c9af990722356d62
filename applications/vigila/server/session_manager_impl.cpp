#include "vigila/server/session_manager_impl.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include "utilc/randbytes.h"
#include "vigila/contract/result_tokens.h"

namespace vigila::server {

using model::User;
using tevra::core::Logger;
using tevra::osa::MutexAutoLock;
using tevra::osa::TimeSpan;
using tevra::osa::TimeStruct;

namespace {

constexpr int32_t kTokenRange = 0x12345678;

// Reads until `data` is full; false when the device fails or ends.
bool FillFromDevice(RandomDevice& device, int file, Logger& logger, unsigned char* data,
                    std::size_t length) {
  std::size_t total = 0;
  while (total < length) {
    const ssize_t count = device.Read(file, data + total, length - total);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    total += static_cast<std::size_t>(count);
    if (total < length) {
      logger.Debug("read %u bytes (total %u) from /dev/urandom, want %zu more",
                   static_cast<unsigned>(count), static_cast<unsigned>(total), length - total);
    }
  }
  return true;
}

void GetRandomBytes(RandomDevice& device, unsigned char* data, std::size_t length) {
  const int file = device.Open();
  // Deliberate: fetched on every call, so that the name is in the registry only once a token has
  // been drawn.
  Logger* const logger = Logger::GetLogger("SessionManager::GetRandomBytes");
  if (file >= 0) {
    const bool filled = FillFromDevice(device, file, *logger, data, length);
    device.Close(file);
    if (filled) return;
  }
  // A device that opens but does not deliver is as good as none: the token must come from
  // somewhere, and never from a half-filled buffer.
  logger->Warning("could not open /dev/urandom, sourcing from less reliable rng");
  randbytes(data, length);
}

}  // namespace

SessionManager::SessionManagerImpl::SessionManagerImpl(tevra::osa::ITimeSource* time_source,
                                                       int timeout_secs, RandomDevice& device)
    : time_source_(time_source),
      device_(device),
      logger_(Logger::GetLogger("SessionManagerImpl")),
      timeout_(TimeSpan::FromSeconds(timeout_secs)) {}

SessionManager::SessionManagerImpl::~SessionManagerImpl() {
  try {
    MutexAutoLock lock(mutex_);
    sessions_.clear();
  } catch (...) {
    // The members' own destructors end the sessions then.
  }
}

std::string SessionManager::SessionManagerImpl::Enroll(User* user) {
  PruneSessions();
  if (user == nullptr) return "";
  if (user->Name() == User::kAnonymousUsername) return contract::kNoToken;

  TimeStruct now;
  time_source_->GetTime(now);
  // Deliberate: stamped before the lock is taken, so the idle time counts from the logon also when
  // the lock had to be waited for.
  user->SetLastAccess(now);

  MutexAutoLock lock(mutex_);
  std::string token = GenerateToken();
  while (sessions_.contains(token)) token = GenerateToken();
  logger_->Information("enrolling session (token = %s) for user %s", token.c_str(),
                       user->Name().c_str());
  AddSession(token, user);
  return token;
}

bool SessionManager::SessionManagerImpl::FindReusable(const std::string& name,
                                                      const std::string& digest,
                                                      std::string& token) {
  PruneSessions();
  MutexAutoLock lock(mutex_);
  const auto tokens = by_user_.find(name);
  if (tokens == by_user_.end()) return false;
  for (const std::string_view candidate : tokens->second) {
    const User& user = *sessions_.find(std::string(candidate))->second.user;
    if (!user.IsReusable() || !user.CompareHA1(digest)) continue;
    // Deliberate: the idle timer goes on running; only Refresh restarts it.
    token = candidate;
    logger_->Information("found reusable session (token = %s) for user %s", token.c_str(),
                         name.c_str());
    return true;
  }
  return false;
}

bool SessionManager::SessionManagerImpl::Refresh(const std::string& token) {
  PruneSessions();
  MutexAutoLock lock(mutex_);
  const auto found = sessions_.find(token);
  if (found == sessions_.end()) return false;

  Session& session = found->second;
  TimeStruct now;
  time_source_->GetTime(now);
  if (!session.stray.has_value() && now >= in_order_.back()->second.user->LastAccess()) {
    session.user->SetLastAccess(now);
    in_order_.splice(in_order_.end(), in_order_, session.place);
    return true;
  }
  const InOrder::iterator place = session.place;
  const std::optional<Strays::iterator> stray = session.stray;
  AddByAge(*found, now);
  RemoveByAge(place, stray);
  session.user->SetLastAccess(now);
  return true;
}

User* SessionManager::SessionManagerImpl::GetUser(const std::string& token) {
  PruneSessions();
  MutexAutoLock lock(mutex_);
  const auto found = sessions_.find(token);
  return found == sessions_.end() ? nullptr : found->second.user.get();
}

bool SessionManager::SessionManagerImpl::Cancel(const std::string& token) {
  PruneSessions();
  MutexAutoLock lock(mutex_);
  return DoCancel(token);
}

// Deliberate: what has expired is not pruned first, so its end is logged as an invalidation.
void SessionManager::SessionManagerImpl::Invalidate(const std::string& name) {
  InvalidateBut(name, "");
}

std::size_t SessionManager::SessionManagerImpl::InvalidateBut(const std::string& name,
                                                              const std::string& spared) {
  MutexAutoLock lock(mutex_);
  std::vector<std::string> tokens;
  if (name == "*") {
    tokens.reserve(sessions_.size());
    for (const auto& [token, session] : sessions_) tokens.push_back(token);
  } else if (const auto found = by_user_.find(name); found != by_user_.end()) {
    tokens.assign(found->second.begin(), found->second.end());
  }
  std::erase(tokens, spared);
  EndSessions(tokens, "invalidating");
  if (on_end_) {
    for (const std::string& token : tokens) on_end_(token);
  }
  return tokens.size();
}

void SessionManager::SessionManagerImpl::SetTimeout(int seconds) {
  MutexAutoLock lock(mutex_);
  timeout_ = TimeSpan::FromSeconds(seconds);
}

void SessionManager::SessionManagerImpl::TellEnds(
    std::function<void(const std::string& token)> on_end) {
  MutexAutoLock lock(mutex_);
  on_end_ = std::move(on_end);
}

void SessionManager::SessionManagerImpl::PruneSessions() {
  MutexAutoLock lock(mutex_);
  TimeStruct now;
  time_source_->GetTime(now);

  std::vector<std::string> expired;
  for (const Sessions::value_type* const session : in_order_) {
    if (!IsExpired(session->second.user->LastAccess(), now)) break;
    expired.push_back(session->first);
  }
  for (const auto& [last_access, session] : strays_) {
    if (!IsExpired(last_access, now)) break;
    expired.push_back(session->first);
  }
  if (!expired.empty()) EndSessions(expired, "expiring");
}

bool SessionManager::SessionManagerImpl::DoCancel(const std::string& token) {
  const auto found = sessions_.find(token);
  if (found == sessions_.end()) return false;
  logger_->Information("canceling session enrollment (token = %s) for user %s", token.c_str(),
                       found->second.user->Name().c_str());
  DeleteSession(found);
  if (on_end_) on_end_(token);
  return true;
}

bool SessionManager::SessionManagerImpl::IsExpired(const TimeStruct& last_access,
                                                   const TimeStruct& now) const {
  TimeStruct expiry = last_access;
  expiry += timeout_.AsMicroseconds();
  // Deliberate: a session exactly at its expiry lives.
  return now > expiry;
}

void SessionManager::SessionManagerImpl::AddByAge(Sessions::value_type& session,
                                                  const TimeStruct& last_access) {
  if (in_order_.empty() || last_access >= in_order_.back()->second.user->LastAccess()) {
    session.second.place = in_order_.insert(in_order_.end(), &session);
    session.second.stray.reset();
  } else {
    session.second.stray = strays_.emplace(last_access, &session);
  }
}

void SessionManager::SessionManagerImpl::RemoveByAge(InOrder::iterator place,
                                                     std::optional<Strays::iterator> stray) {
  if (stray.has_value()) {
    strays_.erase(*stray);
  } else {
    in_order_.erase(place);
  }
}

void SessionManager::SessionManagerImpl::RemoveByUser(const std::string& name,
                                                      const std::string& token) {
  const auto tokens = by_user_.find(name);
  if (tokens == by_user_.end()) return;
  tokens->second.erase(token);
  if (tokens->second.empty()) by_user_.erase(tokens);
}

void SessionManager::SessionManagerImpl::AddSession(const std::string& token, User* user) {
  const auto added = sessions_.try_emplace(token).first;
  try {
    by_user_[user->Name()].insert(added->first);
    AddByAge(*added, user->LastAccess());
  } catch (...) {
    RemoveByUser(user->Name(), added->first);
    sessions_.erase(added);
    throw;
  }
  added->second.user.reset(user);
  added->second.since = user->LastAccess().seconds;
}

void SessionManager::SessionManagerImpl::DeleteSession(Sessions::iterator session) {
  RemoveByAge(session->second.place, session->second.stray);
  RemoveByUser(session->second.user->Name(), session->first);
  sessions_.erase(session);
}

void SessionManager::SessionManagerImpl::EndSessions(std::vector<std::string>& tokens,
                                                     const char* how) {
  std::sort(tokens.begin(), tokens.end());
  for (const std::string& token : tokens) {
    // Deliberate: a session under the text that means "no session" would outlive every pass. None
    // is ever enrolled under it; the guard stays all the same.
    if (token == contract::kNoToken) continue;
    const auto session = sessions_.find(token);
    logger_->Information("%s session (token = %s) for user %s", how, token.c_str(),
                         session->second.user->Name().c_str());
    DeleteSession(session);
  }
}

std::string SessionManager::SessionManagerImpl::GenerateToken() const {
  unsigned char bytes[sizeof(int32_t)];
  GetRandomBytes(device_, bytes, sizeof(bytes));
  int32_t value;
  std::memcpy(&value, bytes, sizeof(value));
  // Deliberate: the remainder has the sign of the value, which maps every draw into 1..610839791;
  // callers hold tokens in buffers of nine characters and know this range.
  const int32_t number = value % kTokenRange + kTokenRange;
  char text[9];
  std::snprintf(text, sizeof(text), "%08X", static_cast<unsigned>(number));
  return text;
}

}  // namespace vigila::server

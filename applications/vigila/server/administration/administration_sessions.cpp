#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <string_view>
#include <utility>

#include "krand/base64/base64.h"
#include "tevra/core/utf8.h"
#include "vigila/contract/limits.h"
#include "vigila/contract/result_codes.h"
#include "vigila/server/administration/administration.h"
#include "vigila/server/administration/answer.h"
#include "vigila/server/administration/authority.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/server_env.h"
#include "vigila/server/session_manager.h"

namespace vigila::server {
namespace {

using krand::lib::Base64;

constexpr size_t kIdDigits = 16;
constexpr std::string_view kEverybody = "*";

std::string IdText(uint64_t id) {
  char text[kIdDigits + 1];
  std::snprintf(text, sizeof(text), "%016" PRIx64, id);
  return text;
}

// 0, which no session has, for what is no identifier in its one spelling.
uint64_t ParseId(std::string_view text) {
  if (text.size() != kIdDigits ||
      text.find_first_not_of("0123456789abcdef") != std::string_view::npos) {
    return 0;
  }
  uint64_t id = 0;
  std::from_chars(text.data(), text.data() + text.size(), id, 16);
  return id;
}

// A page ends behind a session, which may have ended when the next page is asked for: the cursor
// holds what orders them, not the session.
std::string CursorBehind(const SessionInfo& session) {
  return Base64::Encode(IdText(session.id) + session.user);
}

bool ReadCursor(const std::string& cursor, SessionQuery& query) {
  if (cursor.empty()) return true;
  const std::string text = Base64::Decode(cursor);
  query.after_id = ParseId(std::string_view(text).substr(0, kIdDigits));
  if (query.after_id == 0) return false;
  query.after_user = text.substr(kIdDigits);
  return true;
}

const char* Word(LogonScheme scheme) {
  switch (scheme) {
    case LogonScheme::kPassword:
      return "password";
    case LogonScheme::kHttpDigest:
      return "digest";
    case LogonScheme::kUsernameToken:
      return "username-token";
    case LogonScheme::kUnknown:
      break;
  }
  return "unknown";
}

json::Object DescribeSession(const SessionInfo& info, int64_t now) {
  json::Object session;
  session["Id"] = json::String(IdText(info.id));
  answer::SetName(session, "User", info.user);
  answer::SetGroup(session, info.group);
  session["Since"] = answer::Time(info.since);
  session["LastUse"] = answer::Time(info.last_use);
  session["IdleSeconds"] = json::Number(std::max<int64_t>(now - info.last_use, 0));
  session["Ends"] = answer::Time(info.ends);
  session["Scheme"] = json::String(Word(info.scheme));
  session["Source"] = json::Null();
  if (!info.source.empty()) session["Source"] = json::String(info.source);
  session["Shared"] = json::Boolean(info.shared);
  session["Own"] = json::Boolean(info.own);
  return session;
}

}  // namespace

// Makes earlier answers of every client stale that does not know itself which sessions have ended.
void Administration::AnnounceEndedSessions() {
  env_.GetSecurityProvider()->FireChangeListeners(false);
}

std::string Administration::GetSessions(const Caller& caller, const std::string& user,
                                        const std::string& cursor, uint32_t limit) {
  Authority(caller, *env_.GetSecurityProvider()).RequireAdministratorOr(user);
  SessionQuery query;
  if (!ReadCursor(cursor, query)) return answer::CodeAlone(contract::kMalformed);
  query.user = user;
  query.limit = std::min(limit == 0 ? kDefaultPage : limit, kLongestPage);
  query.own_token = caller.token;
  const SessionPage page = env_.GetSessionManager().List(query);

  json::Array sessions;
  const int64_t now = Now();
  for (const SessionInfo& info : page.sessions) sessions.push_back(DescribeSession(info, now));
  json::Object object = answer::WithCode(contract::kApplied);
  object["Sessions"] = std::move(sessions);
  object["Total"] = json::Number(page.total);
  if (page.more) object["Next"] = json::String(CursorBehind(page.sessions.back()));
  return answer::Text(std::move(object));
}

std::string Administration::EndSession(const Caller& caller, const std::string& id) {
  const Authority authority(caller, *env_.GetSecurityProvider());
  // Another's session is as unknown to a person as one that does not live.
  const std::string owner = authority.IsAdministrator() ? "" : authority.Name();
  if (!env_.GetSessionManager().CancelById(ParseId(id), owner)) {
    return answer::CodeAlone(contract::kNoSuchSession);
  }
  AnnounceEndedSessions();
  return answer::CodeAlone(contract::kApplied);
}

std::string Administration::EndSessions(const Caller& caller, const std::string& user,
                                        bool spare_own) {
  SecurityProvider& provider = *env_.GetSecurityProvider();
  Authority(caller, provider).RequireAdministratorOr(user);
  if (user != kEverybody && !provider.Users().Exists(user)) {
    return answer::CodeAlone(contract::kUnknownUser);
  }
  const size_t ended =
      env_.GetSessionManager().InvalidateBut(user, spare_own ? caller.token : std::string());
  if (ended > 0) AnnounceEndedSessions();
  json::Object object = answer::WithCode(contract::kApplied);
  object["Ended"] = json::Number(ended);
  return answer::Text(std::move(object));
}

std::string Administration::SetSessionSource(const Caller& caller, const std::string& source) {
  Authority(caller, *env_.GetSecurityProvider()).RequireSession();
  if (source.size() > contract::kMaxSourceBytes || !tevra::core::IsUtf8(source)) {
    return answer::CodeAlone(contract::kMalformed);
  }
  env_.GetSessionManager().NoteSource(caller.token, source);
  return answer::CodeAlone(contract::kApplied);
}

}  // namespace vigila::server

#ifndef VIGILA_SERVER_SESSION_INFO_H_
#define VIGILA_SERVER_SESSION_INFO_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tevra/interfaces/i_security_provider.h"

namespace vigila::server {

// With what a session's user has proven who he is.
enum class LogonScheme : uint8_t { kUnknown, kPassword, kHttpDigest, kUsernameToken };

// What may be shown of a session. Times are seconds since the epoch.
struct SessionInfo {
  uint64_t id;  // random and never 0; the token cannot be found from it
  std::string user;
  tevra::interfaces::ISecurityProvider::Group group;
  int64_t since;
  int64_t last_use;
  int64_t ends;  // unless it is used before
  LogonScheme scheme;
  std::string source;  // empty unless a front told it
  bool shared;         // by all logons of its user that ask for it
  bool own;            // of the token that asks
};

// Some of the living sessions, ordered by user and identifier: those of `user` (empty: of all
// users) behind the session `after_id` of `after_user`, at most `limit`.
struct SessionQuery {
  std::string user;
  std::string after_user;
  uint64_t after_id = 0;
  size_t limit = 0;
  std::string own_token;
};

struct SessionPage {
  std::vector<SessionInfo> sessions;
  bool more = false;
  size_t total = 0;  // of all pages
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_SESSION_INFO_H_

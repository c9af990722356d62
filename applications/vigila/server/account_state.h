#ifndef VIGILA_SERVER_ACCOUNT_STATE_H_
#define VIGILA_SERVER_ACCOUNT_STATE_H_

#include <cstdint>
#include <string>

#include "tevra/interfaces/i_security_provider.h"

namespace vigila::server {

// How an account stands, by the policy in force. Times are seconds since the epoch, 0 for never and
// not known.
struct AccountState {
  std::string name;
  tevra::interfaces::ISecurityProvider::Group group;
  bool has_password = false;
  bool locked = false;
  uint32_t locked_since = 0;
  uint32_t locked_until = 0;  // of a locked account: 0 until an administrator lets it in
  uint32_t wrong_passwords = 0;
  bool expired = false;
  int64_t expires = 0;
  uint32_t password_set = 0;
  // Since the store was loaded: logons are not stored.
  uint32_t last_logon = 0;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_ACCOUNT_STATE_H_

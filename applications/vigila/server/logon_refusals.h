#ifndef VIGILA_SERVER_LOGON_REFUSALS_H_
#define VIGILA_SERVER_LOGON_REFUSALS_H_

#include <string>

#include "tevra/core/logger.h"

namespace vigila::server {

// What a logon that the user store refused is answered and how it is logged. `code` is the store's
// result and not UserMap::kOk; the answer is one of SecurityProvider's result tokens.
std::string RefusePasswordLogon(tevra::core::Logger& logger, int code, const std::string& name);
std::string RefuseWsseLogon(tevra::core::Logger& logger, int code, const std::string& name,
                            const std::string& digest, const std::string& nonce);

}  // namespace vigila::server

#endif  // VIGILA_SERVER_LOGON_REFUSALS_H_

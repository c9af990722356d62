#include "vigila/server/logon_refusals.h"

#include "vigila/contract/result_tokens.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/user_map.h"

namespace vigila::server {
namespace {

// The refusals that every scheme words alike; null when `code` is none of them.
const char* RefuseAccount(tevra::core::Logger& logger, int code, const std::string& name) {
  switch (code) {
    case UserMap::kNoSuchUser:
      logger.Notice("Nonexistent user %s", name.c_str());
      return contract::kNoToken;
    case UserMap::kDisabled:
      logger.Notice("User account '%s' is disabled; too many invalid passwords.", name.c_str());
      return contract::kDisabledToken;
    case UserMap::kExpired:
      logger.Notice("Password has expired for local user '%s'.", name.c_str());
      return contract::kExpiredToken;
    default:
      return nullptr;
  }
}

}  // namespace

std::string RefusePasswordLogon(tevra::core::Logger& logger, int code, const std::string& name) {
  if (const char* token = RefuseAccount(logger, code, name)) return token;
  if (code == UserMap::kWrongPassword) {
    logger.Notice("Incorrect password specified for local user '%s'.", name.c_str());
  } else {
    logger.Error("Unknown ValidateUser code %d for user '%s'.", code, name.c_str());
  }
  return contract::kNoToken;
}

std::string RefuseWsseLogon(tevra::core::Logger& logger, int code, const std::string& name,
                            const std::string& digest, const std::string& nonce) {
  if (const char* token = RefuseAccount(logger, code, name)) return token;
  switch (code) {
    case UserMap::kBadDigestLength:
      logger.Information("digest %s is not SHA1", digest.c_str());
      return contract::kNoToken;
    case UserMap::kBadNonce:
      logger.Information("nonce %s is not base64", nonce.c_str());
      return contract::kNoToken;
    case UserMap::kDigestNotAllowed:
      logger.Information("remote user can't use digest mode");
      return contract::kNoDigestToken;
    case UserMap::kWrongPassword:
      // Contract: two blanks after the first full stop belong to the text.
      logger.Information("Digest doesn't match SHA1 calculation for user %s.  Invalid password.",
                         name.c_str());
      return contract::kNoToken;
    default:
      logger.Error("Unknown ValidateWsseDigest code %d for user '%s'.", code, name.c_str());
      return contract::kNoToken;
  }
}

}  // namespace vigila::server

#ifndef VIGILA_GATEWAY_AUTH_AUTH_SERVICE_H_
#define VIGILA_GATEWAY_AUTH_AUTH_SERVICE_H_

#include <cstdint>
#include <string>
#include <vector>

namespace vigila::gateway {

struct DigestLogon {
  std::string username;
  std::string nonce;
  std::string ha2;
  bool sess = false;
  std::string qop;
  std::string cnonce;
  std::string nc;
  std::string response;
};

struct WsseLogon {
  std::string username;
  std::string digest;
  std::string nonce;
  std::string created;
};

// What became of the questions so far.
struct ServiceCounts {
  uint64_t cache_hits = 0;    // answered from memory
  uint64_t cache_misses = 0;  // could have been, but had to be asked
  uint64_t failures = 0;      // got no answer
};

// What the gateway asks of the authentication service. Answers are false or empty when the service
// cannot be reached, so a negative one proves nothing by itself.
// The logons answer a session's token or one of the service's refusals. Any thread may call.
class AuthService {
 public:
  virtual ~AuthService() = default;

  virtual bool IsProtected(const std::string& path) = 0;
  virtual bool Authorize(const std::string& token, const std::string& path) = 0;
  virtual std::string LogOnWithPassword(const std::string& username,
                                        const std::string& password) = 0;
  virtual std::string LogOnWithDigest(const DigestLogon& logon) = 0;
  virtual std::string LogOnWithWsse(const WsseLogon& logon) = 0;
  virtual bool Logout(const std::string& token) = 0;
  virtual std::string GetNonce() = 0;
  // The user of the token's living session.
  virtual std::string GetUser(const std::string& token) = 0;
  virtual std::vector<std::string> GetPermissions(const std::string& token) = 0;
  // Is the service there, now? Never answered from memory.
  virtual bool IsReachable() = 0;
  virtual ServiceCounts Counts() const = 0;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_AUTH_SERVICE_H_

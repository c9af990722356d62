#ifndef VIGILA_CLIENT_VIGILA_CLIENT_H_
#define VIGILA_CLIENT_VIGILA_CLIENT_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vigila::client {

// The authentication service as other services see it, for callers in C++17 or later. Forwards each
// question to the server over the message bus. The four questions that come with every request
// (Authenticate, Authorize, IsAuthenticated, IsProtected) are answered from memory for 1.5 seconds
// after they were last asked, for as long as the server is known to live and has not taken the
// answer back. Once a call that ends a session or changes an account or a rule has returned, in
// whatever process it was made, no grant is given that it ended; on a bus with a broker, once its
// announcement has arrived.
//
// Any thread may call any operation at the same time, may be cancelled in it (pthread_cancel), and
// may go on calling while the process ends by exit(). Destroy the client only when no call is under
// way.
//
// A client belongs to the process that opened it. In a child of fork every call answers no at once,
// with one log line; a client that the child opens works. Either process may destroy its copy.
//
// Operations never throw for a refusal or an unreachable server: the answer is then false or empty.
// Each of them, TryAuthorize and TryIsProtected excepted, may ask the server and then waits for its
// answer up to the bus's deadline (5 seconds unless configured otherwise). The constructor throws
// tevra::osa::Exception when the platform's configuration is unusable; a server need not be
// running.
//
// Texts are counted bytes of any value.
class __attribute__((visibility("default"))) VigilaClient {
 public:
  class __attribute__((visibility("hidden"))) Impl;

  // The mode that lets a logon share a session which the same credentials opened before. Every
  // other mode opens a session of its own.
  static constexpr const char* kReuseMode = "cache";

  VigilaClient();
  ~VigilaClient();
  VigilaClient(const VigilaClient&) = delete;
  VigilaClient& operator=(const VigilaClient&) = delete;

  // The logons always overwrite `token`, also when they fail: with the session's token, with
  // "NO_TOKEN" (refused), "DISABLED" (locked after too many wrong passwords), "NODIGEST" (may not
  // use digests), "_EXPIRED" (password or nonce too old), or with nothing when there was no answer.
  bool Authenticate(const std::string& username, const std::string& password,
                    const std::string& mode, std::string& token) const;
  bool AuthenticateHttp(const std::string& username, const std::string& nonce,
                        const std::string& ha2, bool sess, const std::string& qop,
                        const std::string& cnonce, const std::string& nc,
                        const std::string& response, const std::string& mode,
                        std::string& token) const;
  bool AuthenticateWsse(const std::string& username, const std::string& password_digest,
                        const std::string& nonce, const std::string& created,
                        const std::string& mode, std::string& token) const;

  // May the token's session reach the path? A grant restarts the session's idle timer when the
  // server gave it, not when it came from memory.
  bool Authorize(const std::string& token, const std::string& path) const;
  // Does the token stand for a living session? Never for "NO_TOKEN".
  bool IsAuthenticated(const std::string& token) const;
  // Does the path ask for a logon at all? False also when there was no answer: ask Authorize, which
  // then refuses, before handing anything out.
  bool IsProtected(const std::string& path) const;

  // The same two questions for callers that must not wait, such as servers with an event loop:
  // answered from memory, at the cost of a look-up, or not at all. Then a thread that may wait asks
  // Authorize or IsProtected; memory holds the answer afterwards unless Authorize refused.
  std::optional<bool> TryAuthorize(const std::string& token, const std::string& path) const;
  std::optional<bool> TryIsProtected(const std::string& path) const;

  // Ends all sessions of the user of that name; "*" ends everybody's.
  void Invalidate(const std::string& token) const;
  bool Logout(const std::string& token) const;

  // The user name behind the token.
  std::string GetCredentials(const std::string& token) const;
  // 32 lower-case hexadecimal digits, good for 300 seconds.
  std::string GetNonce() const;
  std::vector<std::string> GetAllowedPaths(const std::string& token) const;
  std::vector<std::string> GetAllowedPermissions(const std::string& token) const;

  // What became of the questions so far. Reading it costs a few loads.
  struct Counts {
    uint64_t cache_hits = 0;    // answered from memory
    uint64_t cache_misses = 0;  // could have been, but had to be asked
    uint64_t failures = 0;      // of all kinds, that got no answer from the server
  };
  Counts GetCounts() const;

 private:
  std::unique_ptr<Impl> impl_;  // constant until the end
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_VIGILA_CLIENT_H_

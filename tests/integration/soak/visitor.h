#ifndef TESTS_INTEGRATION_SOAK_VISITOR_H_
#define TESTS_INTEGRATION_SOAK_VISITOR_H_

#include <deque>
#include <functional>
#include <string>

#include "ledger.h"
#include "vigila/client/vigila_client.h"

namespace soak {

// One thread's questions to a client that all threads share: those that must be answered rightly
// while the daemon lives, and those that must never be granted. Borrows everything it is given. Has
// two viewers' accounts of its own, "viewN" and "guestN", whose passwords are made of their names;
// the account "victim" is everybody's to fail at.
class Visitor {
 public:
  Visitor(int number, const vigila::client::VigilaClient& client, const Lives& lives,
          Ledger& ledger);

  // Asks everything once, the cached questions many times.
  void Round();

 private:
  struct DeadToken {
    std::string token;
    std::string why;
    Clock::time_point ended;
    Clock::time_point wrong_from;  // a grant asked for from here on is a wrong one
  };

  void LogOn();
  void AskWhatViewersMay();
  void AskWhatNobodyMay();
  void AskWithDeadTokens();
  void EndSessions();

  // Notes whether the answer was right; a session's questions only in the life it belongs to.
  void Ask(const char* operation, const std::function<bool()>& is_right);
  void AskInSession(const char* operation, const std::function<bool()>& is_right);
  void MustNotBe(const char* what, bool granted);
  void Bury(const std::string& token, const std::string& why, Clock::time_point ended,
            Clock::duration grace);

  bool LogOnWithDigest(const std::string& password);
  bool LogOnWithWsse(const std::string& name, const std::string& password, std::string& token);

  const vigila::client::VigilaClient& client_;
  const Lives& lives_;
  Ledger& ledger_;
  const std::string viewer_;
  const std::string guest_;
  std::string token_ = "NO_TOKEN";
  Moment logged_on_;  // down: the token's life is not known
  std::deque<DeadToken> dead_;
};

}  // namespace soak

#endif  // TESTS_INTEGRATION_SOAK_VISITOR_H_

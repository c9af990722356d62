#ifndef TESTS_INTEGRATION_SOAK_VISITOR_H_
#define TESTS_INTEGRATION_SOAK_VISITOR_H_

#include <deque>
#include <functional>
#include <string>

#include "ledger.h"
#include "other_process.h"
#include "revoker.h"
#include "vigila/client/vigila_client.h"

namespace soak {

// One thread's questions to a client that all threads share: those that must be answered rightly
// while there is calm, and those that must never be granted. Borrows everything it is given. Has
// two viewers' accounts of its own, "viewN" and "guestN", whose passwords are made of their names,
// and makes and deletes a third one, "briefN"; the account "victim" is everyone's to fail at.
class Visitor {
 public:
  static constexpr size_t kWaysToRevoke = 4;

  Visitor(int number, const vigila::client::VigilaClient& client,
          const OtherProcess<Revoker>& revoker, const Lives& lives, Ledger& ledger);

  // Asks everything once, the cached questions many times.
  void Round();

 private:
  struct DeadToken {
    std::string token;
    std::string why;
  };

  void LogOn();
  void AskWhatViewersMay();
  void AskWhatNoOneMay();
  void AskWithDeadTokens();
  void EndSessions();
  void HaveGrantsTakenBack();
  // Gets a grant, has it ended by the other process, and asks for it again.
  void HaveTakenBack(const std::string& verb, const std::string& name, const char* path);

  // Notes whether the answer was right; a session's questions only in the life it belongs to.
  void Ask(const char* operation, const std::function<bool()>& is_right);
  void AskInSession(const char* operation, const std::function<bool()>& is_right);
  void MustNotBe(const char* what, bool granted);
  void Bury(const std::string& token, const std::string& why);
  bool Tell(const std::string& verb, const std::string& whom) const;

  bool LogOnWithDigest(const std::string& password);
  bool LogOnWithWsse(const std::string& name, const std::string& password, std::string& token);

  const vigila::client::VigilaClient& client_;
  const OtherProcess<Revoker>& revoker_;
  const Lives& lives_;
  Ledger& ledger_;
  const int number_;
  const std::string viewer_;
  const std::string guest_;
  const std::string brief_;
  std::string token_ = "NO_TOKEN";
  Moment logged_on_;  // not calm: the token's life is not known
  std::deque<DeadToken> dead_;
};

}  // namespace soak

#endif  // TESTS_INTEGRATION_SOAK_VISITOR_H_

#ifndef TEVRA_MSGBUS_SUBSCRIBERS_H_
#define TEVRA_MSGBUS_SUBSCRIBERS_H_

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tevra/msgbus/msg_bus_msg.h"
#include "tevra/msgbus/request_dispatcher.h"

namespace tevra::msgbus {

// The buses that hear of destinations through one engine, and which destinations are there. On the
// dispatch thread only; a handler may add and remove subscribers.
class Subscribers final {
 public:
  // `bus` must stay until it is removed. It is told at once of a destination that is there already.
  void Add(RequestDispatcher& bus, const std::string& destination);
  void Remove(const RequestDispatcher& bus);

  void Signal(const std::string& destination, const MsgBusMsg& signal);
  void Appeared(const std::string& destination);
  void Vanished(const std::string& destination);
  // Tells one bus alone whether the destination is there; `bus` need not be there any more.
  void TellOne(const RequestDispatcher* bus, const std::string& destination);

 private:
  struct Subscriber {
    RequestDispatcher* bus;  // null once it is removed
    std::string destination;
  };

  template <typename Tell>
  void ForEach(const std::string& destination, Tell tell);

  std::vector<std::shared_ptr<Subscriber>> subscribers_;
  std::set<std::string> present_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_SUBSCRIBERS_H_

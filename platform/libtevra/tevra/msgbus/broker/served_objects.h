#ifndef TEVRA_MSGBUS_BROKER_SERVED_OBJECTS_H_
#define TEVRA_MSGBUS_BROKER_SERVED_OBJECTS_H_

#include <systemd/sd-bus.h>

#include <cstddef>
#include <map>
#include <string>

#include "tevra/msgbus/broker/message_codec.h"
#include "tevra/msgbus/request_dispatcher.h"
#include "tevra/msgbus/served_interface.h"

namespace tevra::msgbus {

// The objects of a connection as D-Bus knows them: one for each interface that has handlers, at the
// interface's path, and those above them in the tree. Answers what every object answers about
// itself (org.freedesktop.DBus.Introspectable and Properties; Peer is sd-bus's own), and refuses
// calls of what is not there. On the dispatch thread only.
//
// Whoever the broker lets through may ask what there is. The counters are for those whom the
// interface's own roles admit.
class ServedObjects final {
 public:
  // Without `requests` there is no object. It must outlive this.
  explicit ServedObjects(RequestDispatcher* requests) : requests_(requests) {}

  void Describe(const ServedInterface& served) { described_[served.name] = served; }
  void Withdraw(const std::string& interface) { described_.erase(interface); }

  struct Reply {
    MessagePtr message;  // null when the call is for a handler
    size_t size = 0;     // roughly, in bytes
  };
  Reply Answer(sd_bus_message* call, const Credentials& caller) const;
  // What a caller is told whose arguments have other types than the operation's; empty when they
  // have not, or when no one has described the operation.
  std::string WrongTypes(sd_bus_message* call) const;

 private:
  bool IsAbove(const std::string& path) const;
  const ServedInterface* FindDescription(const std::string& interface) const;

  Reply Introspect(sd_bus_message* call, const std::string& path) const;
  Reply AnswerProperties(sd_bus_message* call, const std::string& object,
                         const Credentials& caller) const;
  Reply AnswerPropertiesOf(sd_bus_message* call, const ServedInterface& served) const;
  Reply GetAll(sd_bus_message* call, const ServedInterface& served) const;
  Reply GetOne(sd_bus_message* call, const ServedInterface& served, const std::string& name) const;

  RequestDispatcher* const requests_;
  std::map<std::string, ServedInterface> described_;  // by name
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_BROKER_SERVED_OBJECTS_H_

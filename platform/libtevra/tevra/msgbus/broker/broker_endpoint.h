#ifndef TEVRA_MSGBUS_BROKER_BROKER_ENDPOINT_H_
#define TEVRA_MSGBUS_BROKER_BROKER_ENDPOINT_H_

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "tevra/msgbus/broker/bus_link.h"
#include "tevra/msgbus/broker/served_objects.h"
#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/dispatch_thread.h"
#include "tevra/msgbus/request_dispatcher.h"
#include "tevra/msgbus/request_scheduler.h"
#include "tevra/msgbus/subscribers.h"

namespace tevra::msgbus {

// A bus's presence on a broker: the names it owns, the calls that come for them, its broadcasts,
// and the destinations it watches, all over one connection. When the broker goes away the endpoint
// comes back with it. On the dispatch thread only; questions to the broker block it for as long as
// the broker takes, at the most the configured time.
class BrokerEndpoint final {
 public:
  // All must outlive the endpoint. Without `requests` nothing is served.
  BrokerEndpoint(const BusConfig& config, DispatchThread& dispatch, RequestDispatcher* requests,
                 Subscribers& subscribers);

  void Serve(const std::string& name);
  void StopServing(const std::string& name);
  bool Serves(const std::string& name) const { return names_.contains(name); }
  void Broadcast(const MsgBusMsg& message);
  void Watch(const std::string& name);
  ServedObjects& objects() { return objects_; }

 private:
  struct Watched {
    std::string owner;  // unique name of the trusted owner; empty while there is none
    Credentials server;
  };
  struct Caller {
    Credentials credentials;
    std::shared_ptr<RequestScheduler::Caller> turns;
  };
  class Request;

  void Connect();
  void Reconnect();
  void ReconnectLater();
  void Lose();
  void Own(const std::string& name);
  void Listen(const std::string& name);
  void TryToListen(const std::string& name);
  void ListenLater(const std::string& name);
  void Complain(const std::string& complaint);

  void DrainLater();
  void OnReady();
  void OnMessage(sd_bus_message* message);
  void OnCall(sd_bus_message* call);
  void Answer(sd_bus_message* call, const Credentials& caller);
  void RunHandler(sd_bus_message* call, const Credentials& caller);
  MsgBusMsg AnswerOf(sd_bus_message* call, MsgBusMsg& request);
  void OnSignal(sd_bus_message* signal);
  void OnOwnerChanged(sd_bus_message* signal);
  void Greet(const std::string& name, const std::string& owner);

  // Null when the broker answers with an error.
  MessagePtr Ask(const char* member, const std::string& argument);
  void AddMatch(const std::string& rule);
  // Null when the broker does not know it.
  const Caller* CallerNamed(const std::string& unique_name);
  std::optional<Credentials> AskCredentials(const std::string& unique_name);

  const BusConfig& config_;
  DispatchThread& dispatch_;
  RequestDispatcher* const requests_;
  Subscribers& subscribers_;
  ServedObjects objects_;
  std::unique_ptr<BusLink> link_;
  DispatchThread::Id watch_ = 0;
  DispatchThread::Id timer_ = 0;
  uint32_t events_ = 0;
  bool drain_posted_ = false;
  std::set<std::string> complaints_;  // since it last came back
  std::set<std::string> waiting_;     // names whose watch is to be tried again
  std::set<std::string> names_;
  std::map<std::string, Watched> watched_;
  std::map<std::string, Caller> callers_;  // by unique name
  RequestScheduler scheduler_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_BROKER_BROKER_ENDPOINT_H_

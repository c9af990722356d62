#ifndef TEVRA_MSGBUS_BROKER_BROKER_CLIENT_H_
#define TEVRA_MSGBUS_BROKER_BROKER_CLIENT_H_

#include <map>
#include <memory>
#include <string>

#include "tevra/msgbus/broker/bus_link.h"
#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/connection_pool.h"
#include "tevra/msgbus/msg_bus_msg.h"

namespace tevra::msgbus {

// The calling side of the broker transport: a pool of connections to the broker. Any thread. A
// message goes to the unique name of the destination's owner, once that owner has been found to be
// trustworthy, so that it cannot reach somebody who took the name in between.
class BrokerClient final {
 public:
  explicit BrokerClient(const BusConfig& config);  // must outlive the client

  std::unique_ptr<MsgBusMsg> Call(const MsgBusMsg& message, Deadline deadline);
  void Post(const MsgBusMsg& message, Deadline deadline);
  bool HasServer(const std::string& name, Deadline deadline);
  bool CloseIdle(std::chrono::steady_clock::time_point since) { return pool_.CloseIdle(since); }

 private:
  struct Connection {
    explicit Connection(const std::string& address) : link(address) {}
    // Input that waits inside sd-bus is a second answer, which the next call must not take for its
    // own.
    bool IsReusable() const { return !link.HasQueuedInput(); }

    BusLink link;
    // Names whose owner was found trustworthy over this connection, and who it was.
    std::map<std::string, std::string> owners;
  };
  using Lease = ConnectionPool<Connection>::Lease;

  void CheckLength(const MsgBusMsg& message) const;
  template <typename Use>
  void With(Deadline deadline, const Use& use);
  // Null when the owner that was known has gone.
  std::unique_ptr<MsgBusMsg> Try(Lease& lease, const MsgBusMsg& message, Deadline deadline);
  std::string FindOwner(Lease& lease, const std::string& name, Deadline deadline);
  MessagePtr AskBroker(Lease& lease, const char* member, const std::string& argument,
                       Deadline deadline);

  const BusConfig& config_;
  ConnectionPool<Connection> pool_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_BROKER_BROKER_CLIENT_H_

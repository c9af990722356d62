#ifndef TEVRA_MSGBUS_BROKER_BROKER_TRANSPORT_H_
#define TEVRA_MSGBUS_BROKER_BROKER_TRANSPORT_H_

#include <memory>
#include <string>

#include "tevra/msgbus/broker/broker_client.h"
#include "tevra/msgbus/broker/broker_endpoint.h"
#include "tevra/msgbus/transport.h"

namespace tevra::msgbus {

// D-Bus through a message broker.
class BrokerTransport final : public Transport {
 public:
  // All must outlive the transport. Without `requests` nothing is served.
  BrokerTransport(const BusConfig& config, DispatchThread& dispatch, RequestDispatcher* requests,
                  Subscribers& subscribers);

  void CheckName(const std::string& name) const override;
  std::unique_ptr<MsgBusMsg> Call(const MsgBusMsg& message, Deadline deadline) override;
  void Post(const MsgBusMsg& message, Deadline deadline) override;
  bool HasServer(const std::string& name, Deadline deadline) override;
  bool CloseIdle(std::chrono::steady_clock::time_point since) override {
    return client_.CloseIdle(since);
  }

  void Serve(const std::string& name) override { endpoint_.Serve(name); }
  void StopServing(const std::string& name) override { endpoint_.StopServing(name); }
  void Broadcast(const MsgBusMsg& message) override { endpoint_.Broadcast(message); }
  void Watch(const std::string& name) override { endpoint_.Watch(name); }
  void Describe(const ServedInterface& served) override { endpoint_.objects().Describe(served); }
  void Withdraw(const std::string& interface) override { endpoint_.objects().Withdraw(interface); }

 private:
  DispatchThread& dispatch_;
  BrokerEndpoint endpoint_;
  BrokerClient client_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_BROKER_BROKER_TRANSPORT_H_

#ifndef TEVRA_MSGBUS_DIRECT_DIRECT_TRANSPORT_H_
#define TEVRA_MSGBUS_DIRECT_DIRECT_TRANSPORT_H_

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "tevra/msgbus/direct/direct_client.h"
#include "tevra/msgbus/direct/direct_server.h"
#include "tevra/msgbus/direct/direct_watcher.h"
#include "tevra/msgbus/subscribers.h"
#include "tevra/msgbus/transport.h"

namespace tevra::msgbus {

// A wire of our own over one Unix socket for each destination.
class DirectTransport final : public Transport {
 public:
  // All must outlive the transport. Without `requests` nothing is served.
  DirectTransport(const BusConfig& config, DispatchThread& dispatch, RequestDispatcher* requests,
                  Subscribers& subscribers);

  void CheckName(const std::string& name) const override;
  std::unique_ptr<MsgBusMsg> Call(const MsgBusMsg& message, Deadline deadline) override;
  void Post(const MsgBusMsg& message, Deadline deadline) override;
  bool HasServer(const std::string& name, Deadline deadline) override;
  bool CloseIdle(std::chrono::steady_clock::time_point since) override {
    return client_.CloseIdle(since);
  }

  void Serve(const std::string& name) override { server_.value().Serve(name); }
  void StopServing(const std::string& name) override { server_.value().StopServing(name); }
  void Broadcast(const MsgBusMsg& message) override { server_.value().Broadcast(message); }
  void Watch(const std::string& name) override { watcher_.Watch(name); }
  void Share(const std::string& name, osa::Descriptor descriptor) override {
    server_.value().Share(name, std::move(descriptor));
  }
  IMsgBus::Shared SharedBy(const std::string& name) override { return watcher_.SharedBy(name); }
  uint64_t Instance() const override { return server_ ? server_->instance() : 0; }

 private:
  void CheckIsNotOwn(const MsgBusMsg& message) const;

  DispatchThread& dispatch_;
  std::optional<DirectServer> server_;
  DirectWatcher watcher_;
  DirectClient client_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_DIRECT_TRANSPORT_H_

#ifndef TEVRA_MSGBUS_DIRECT_DIRECT_SERVER_H_
#define TEVRA_MSGBUS_DIRECT_DIRECT_SERVER_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "tevra/core/folded_log.h"
#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/direct/admission.h"
#include "tevra/msgbus/direct/direct_listener.h"
#include "tevra/msgbus/dispatch_thread.h"
#include "tevra/msgbus/request_dispatcher.h"
#include "tevra/msgbus/request_scheduler.h"
#include "tevra/msgbus/wire/frame.h"

namespace tevra::msgbus {

// The serving side of the direct transport: listening sockets and the clients' connections. On the
// dispatch thread only. Everything a client can make grow has a bound, and who passes one loses the
// connection, and is told why: connections, see Admission; the time for the hello and for the rest
// of a frame that has begun; a frame's length; answers and broadcasts that are not fetched. Of each
// connection one call at a time waits to be handled, and nothing is read meanwhile.
class DirectServer final {
 public:
  // All must outlive the server.
  DirectServer(const BusConfig& config, DispatchThread& dispatch, RequestDispatcher& dispatcher);
  ~DirectServer();

  void Serve(const std::string& name);
  void StopServing(const std::string& name);
  bool Serves(const std::string& name) const { return listeners_.contains(name); }
  void Broadcast(const MsgBusMsg& message);
  void Share(const std::string& name, osa::Descriptor descriptor) {
    shared_[name] = std::move(descriptor);
  }
  uint64_t instance() const { return instance_; }

 private:
  struct Listener {
    std::unique_ptr<DirectListener> socket;
    DispatchThread::Id watch = 0;
  };
  class Client;
  using ClientPtr = std::shared_ptr<Client>;

  void KeepReserve();
  void Accept(const std::string& name);
  // `is_last`: the process has no descriptor beside the one that the connection takes.
  bool AcceptOne(const std::string& name, bool is_last);
  bool AcceptFromReserve(const std::string& name);
  void Admit(osa::Descriptor socket, const std::string& name, bool is_last);
  void OnReady(const ClientPtr& client, uint32_t events);
  bool Read(Client& client);
  void TakeFrames(const ClientPtr& client);
  // Each answers why the connection must end; empty when it need not.
  std::string OnFrame(const ClientPtr& client, std::string_view body);
  std::string OnHello(Client& client, const wire::Frame& hello);
  bool SendWelcome(Client& client);
  void HandleCall(const ClientPtr& client);
  void Send(const ClientPtr& client, std::string_view frames);
  void Refresh(const ClientPtr& client);
  void GiveTime(const ClientPtr& client);
  void Forget(const Client& client);
  void Drop(const ClientPtr& client, const std::string& reason);

  const BusConfig& config_;
  DispatchThread& dispatch_;
  RequestDispatcher& dispatcher_;
  const uint64_t instance_;
  RequestScheduler scheduler_;
  std::string output_;                               // kept for its memory
  std::map<DispatchThread::Id, ClientPtr> clients_;  // by their watch
  std::optional<Admission> admission_;               // since something is served
  core::FoldedLog complaints_;
  osa::Descriptor reserve_;  // to be let go when nothing else is left
  std::map<std::string, osa::Descriptor> shared_;
  // Goes first at destruction: a client that lost its connection must not find the door still open.
  std::map<std::string, Listener> listeners_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_DIRECT_SERVER_H_

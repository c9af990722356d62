#ifndef TEVRA_MSGBUS_DIRECT_SERVER_H_
#define TEVRA_MSGBUS_DIRECT_SERVER_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/bus_link.h"
#include "tevra/msgbus/direct_listener.h"
#include "tevra/msgbus/dispatch_thread.h"
#include "tevra/msgbus/request_dispatcher.h"

namespace tevra::msgbus {

// The serving side of the direct transport: listening sockets and the clients' connections. On the
// dispatch thread only. Everything a client can make grow has a bound, and who passes one loses the
// connection: connections, in all and of one user; the time for the handshake; a message's length;
// answers and broadcasts that are not fetched.
class DirectServer final {
 public:
  // All must outlive the server.
  DirectServer(const BusConfig& config, DispatchThread& dispatch, RequestDispatcher& dispatcher);
  ~DirectServer();

  void Serve(const std::string& name);
  void StopServing(const std::string& name);
  bool Serves(const std::string& name) const { return listeners_.contains(name); }
  void Broadcast(const MsgBusMsg& message);

 private:
  struct Listener {
    std::unique_ptr<DirectListener> socket;
    DispatchThread::Id watch = 0;
  };
  struct Client {
    std::unique_ptr<BusLink> link;
    std::string destination;
    Credentials credentials;
    DispatchThread::Id watch = 0;
    DispatchThread::Id handshake_timer = 0;
    uint32_t events = 0;
    bool subscribed = false;
    bool dropped = false;
  };
  using ClientPtr = std::shared_ptr<Client>;

  void Accept(const std::string& name);
  void Admit(BusFd socket, const std::string& name);
  void OnReady(const ClientPtr& client);
  void OnMessage(Client& client, sd_bus_message* message);
  void Subscribe(Client& client, sd_bus_message* call);
  void Refresh(const ClientPtr& client);
  void Drop(const ClientPtr& client);

  const BusConfig& config_;
  DispatchThread& dispatch_;
  RequestDispatcher& dispatcher_;
  std::map<DispatchThread::Id, ClientPtr> clients_;  // by their watch
  std::map<uid_t, size_t> clients_of_;
  // Goes first at destruction: a client that lost its connection must not find the door still open.
  std::map<std::string, Listener> listeners_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_SERVER_H_

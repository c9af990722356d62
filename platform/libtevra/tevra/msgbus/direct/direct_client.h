#ifndef TEVRA_MSGBUS_DIRECT_DIRECT_CLIENT_H_
#define TEVRA_MSGBUS_DIRECT_DIRECT_CLIENT_H_

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/connection_pool.h"
#include "tevra/msgbus/direct/client_connection.h"
#include "tevra/msgbus/msg_bus_msg.h"

namespace tevra::msgbus {

// The calling side of the direct transport: a pool of connections to each destination. Any thread.
// A connection that turns out to be dead before it took anything of the message is replaced without
// a word; one that dies later fails the call, for the server may have done the work.
class DirectClient final {
 public:
  explicit DirectClient(const BusConfig& config);  // must outlive the client

  // A server that refuses the connection for lack of a role has answered so.
  std::unique_ptr<MsgBusMsg> Call(const MsgBusMsg& message, Deadline deadline);
  void Post(const MsgBusMsg& message, Deadline deadline);
  // Whether a live server listens, trustworthy or not.
  bool HasServer(const std::string& name) const;
  bool CloseIdle(std::chrono::steady_clock::time_point since);

 private:
  using Pool = ConnectionPool<ClientConnection>;

  Pool& PoolFor(const MsgBusMsg& message);

  const BusConfig& config_;
  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<Pool>> pools_;  // guarded by mutex_; only grows
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_DIRECT_CLIENT_H_

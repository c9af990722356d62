#ifndef TEVRA_MSGBUS_CONNECTION_POOL_H_
#define TEVRA_MSGBUS_CONNECTION_POOL_H_

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tevra/msgbus/bus_link.h"

namespace tevra::msgbus {

// A bounded set of open connections to one place. Each is lent to one call at a time; no lock is
// held while a call waits for its answer. Any thread.
class ConnectionPool final {
 public:
  struct Connection {
    std::unique_ptr<BusLink> link;
    // On a broker: names whose owner was found trustworthy over this connection, and who it was.
    std::map<std::string, std::string> owners;
  };
  using Connect = std::function<Connection(Deadline deadline)>;

  // A connection on loan. Goes back to the pool unless it was discarded; must not outlive the pool.
  class Lease final {
   public:
    Lease(ConnectionPool& pool, Connection connection, bool is_new);
    ~Lease();
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    BusLink& link() { return *connection_.link; }
    Connection& connection() { return connection_; }
    bool IsNew() const { return is_new_; }
    void Discard() { keep_ = false; }

   private:
    ConnectionPool& pool_;
    Connection connection_;
    const bool is_new_;
    bool keep_ = true;
  };

  ConnectionPool(size_t size, Connect connect);

  // Waits for a connection when all are lent; throws tevra::osa::Exception at the deadline, and
  // what connecting throws.
  Lease Borrow(Deadline deadline);
  // Closes the connections that nobody uses.
  void DiscardIdle();

 private:
  void Return(Connection connection);
  void Forget();

  const size_t size_;
  const Connect connect_;
  std::mutex mutex_;
  std::condition_variable returned_;
  // Guarded by mutex_.
  std::vector<Connection> idle_;
  size_t open_ = 0;  // idle, lent, or being connected
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_CONNECTION_POOL_H_

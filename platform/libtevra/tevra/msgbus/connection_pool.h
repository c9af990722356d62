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
    // Anything but kDone ends the connection and throws: osa::Exception with what became of the
    // message to `whom`, or for With to try again.
    void Check(BusLink::Outcome outcome, const char* whom);

   private:
    ConnectionPool& pool_;
    Connection connection_;
    const bool is_new_;
    bool keep_ = true;
  };

  ConnectionPool(size_t size, Connect connect);

  // Lends a connection to `use`, and another one when that one had died while nobody used it.
  // Waits for one when all are lent; throws tevra::osa::Exception at the deadline, and what
  // connecting throws.
  template <typename Use>
  void With(Deadline deadline, const Use& use) {
    for (;;) {
      Lease lease = Borrow(deadline);
      try {
        return use(lease);
      } catch (const WasDead&) {
        // The peer has been away, so the other idle connections are as dead as this one.
        DiscardIdle();
      }
    }
  }

 private:
  struct WasDead {};

  Lease Borrow(Deadline deadline);
  void DiscardIdle();
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

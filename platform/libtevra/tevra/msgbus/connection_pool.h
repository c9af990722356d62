#ifndef TEVRA_MSGBUS_CONNECTION_POOL_H_
#define TEVRA_MSGBUS_CONNECTION_POOL_H_

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "tevra/msgbus/deadline.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {

// What became of a message that a connection was to carry.
enum class Outcome {
  kDone,
  kNotSent,  // the peer went without having taken the whole message: nothing came of it
  kLost,     // the connection died, or broke a rule, afterwards
  kTimedOut,
};

// A bounded set of open connections to one place. Each is lent to one call at a time; no lock is
// held while a call waits for its answer. Any thread. `Connection` tells by IsReusable whether it
// is fit for another call.
template <typename Connection>
class ConnectionPool final {
 public:
  using ConnectionPtr = std::unique_ptr<Connection>;
  using Connect = std::function<ConnectionPtr(Deadline deadline)>;
  using Clock = std::chrono::steady_clock;

  // A connection on loan. Goes back to the pool when it was used to the end; must not outlive the
  // pool.
  class Lease final {
   public:
    Lease(ConnectionPool& pool, ConnectionPtr connection, bool is_new)
        : pool_(pool), connection_(std::move(connection)), is_new_(is_new) {}
    ~Lease() {
      if (keep_ && connection_->IsReusable()) {
        pool_.Return(std::move(connection_));
      } else {
        connection_.reset();
        pool_.Forget();
      }
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    Connection* operator->() { return connection_.get(); }
    // Nothing is under way on the connection. Not said when its use ends with the thread, which
    // may be cancelled: half a message may be sent, half an answer read.
    void Keep() { keep_ = !is_lost_; }
    // Anything but kDone ends the connection and throws: osa::Exception with what became of the
    // message to `whom`, or for With to try again.
    void Check(Outcome outcome, const char* whom) {
      if (outcome == Outcome::kDone) return;
      is_lost_ = true;
      if (outcome == Outcome::kNotSent && !is_new_) throw WasDead();
      if (outcome == Outcome::kTimedOut) {
        throw osa::Exception("message bus: no answer from %s in time", whom);
      }
      throw osa::Exception("message bus: connection to %s lost", whom);
    }

   private:
    ConnectionPool& pool_;
    ConnectionPtr connection_;
    const bool is_new_;
    bool is_lost_ = false;
    bool keep_ = false;
  };

  ConnectionPool(size_t size, Connect connect) : size_(size), connect_(std::move(connect)) {}

  // Lends a connection to `use`, and another one when the message could not be sent over one that
  // had been idle: its peer may have gone long ago. Waits
  // for one when all are lent; throws tevra::osa::Exception at the deadline, and what connecting
  // throws.
  template <typename Use>
  void With(Deadline deadline, const Use& use) {
    for (;;) {
      Lease lease = Borrow(deadline);
      try {
        use(lease);
        return lease.Keep();
      } catch (const osa::Exception&) {
        lease.Keep();
        throw;
      } catch (const WasDead&) {
        // The peer has been away, so the other idle connections are as dead as this one.
        DiscardIdle();
      }
    }
  }

  // Closes those that nothing has borrowed since then; whether others are idle.
  bool CloseIdle(Clock::time_point since) {
    std::vector<Idle> leaving;  // closed when the mutex is free again
    const std::lock_guard<std::mutex> lock(mutex_);
    // The one that came back last is lent first, so the oldest stand in front.
    const auto staying = std::find_if(idle_.begin(), idle_.end(),
                                      [since](const Idle& idle) { return idle.since > since; });
    leaving.assign(std::make_move_iterator(idle_.begin()), std::make_move_iterator(staying));
    idle_.erase(idle_.begin(), staying);
    open_ -= leaving.size();
    return !idle_.empty();
  }

 private:
  struct WasDead {};
  struct Idle {
    ConnectionPtr connection;
    Clock::time_point since;
  };

  Lease Borrow(Deadline deadline) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      const bool available =
          returned_.wait_until(lock, deadline, [this] { return !idle_.empty() || open_ < size_; });
      if (!available) throw osa::Exception("message bus: every connection is busy");
      if (!idle_.empty()) {
        ConnectionPtr connection = std::move(idle_.back().connection);
        idle_.pop_back();
        return Lease(*this, std::move(connection), false);
      }
      ++open_;
    }
    try {
      return Lease(*this, connect_(deadline), true);
    } catch (...) {
      Forget();
      throw;
    }
  }

  void DiscardIdle() {
    std::vector<Idle> idle;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      idle.swap(idle_);
      open_ -= idle.size();
    }
    returned_.notify_all();
  }

  void Return(ConnectionPtr connection) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      idle_.push_back({std::move(connection), Clock::now()});
    }
    returned_.notify_one();
  }

  void Forget() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      --open_;
    }
    returned_.notify_one();
  }

  const size_t size_;
  const Connect connect_;
  std::mutex mutex_;
  std::condition_variable returned_;
  // Guarded by mutex_.
  std::vector<Idle> idle_;
  size_t open_ = 0;  // idle, lent, or being connected
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_CONNECTION_POOL_H_

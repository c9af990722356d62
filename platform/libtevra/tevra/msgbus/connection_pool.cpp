#include "tevra/msgbus/connection_pool.h"

#include <utility>

#include "tevra/osa/exception.h"

namespace tevra::msgbus {

ConnectionPool::Lease::Lease(ConnectionPool& pool, Connection connection, bool is_new)
    : pool_(pool), connection_(std::move(connection)), is_new_(is_new) {}

ConnectionPool::Lease::~Lease() {
  // Input that nobody asked for stays behind a peer's second answer; such a peer gets no second
  // call.
  if (keep_ && !connection_.link->HasQueuedInput()) {
    pool_.Return(std::move(connection_));
  } else {
    connection_.link.reset();
    pool_.Forget();
  }
}

void ConnectionPool::Lease::Check(BusLink::Outcome outcome, const char* whom) {
  if (outcome == BusLink::Outcome::kDone) return;
  keep_ = false;
  if (outcome == BusLink::Outcome::kNotSent && !is_new_) throw WasDead();
  if (outcome == BusLink::Outcome::kTimedOut) {
    throw osa::Exception("message bus: no answer from %s in time", whom);
  }
  throw osa::Exception("message bus: connection to %s lost", whom);
}

ConnectionPool::ConnectionPool(size_t size, Connect connect)
    : size_(size), connect_(std::move(connect)) {}

ConnectionPool::Lease ConnectionPool::Borrow(Deadline deadline) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool available =
        returned_.wait_until(lock, deadline, [this] { return !idle_.empty() || open_ < size_; });
    if (!available) throw osa::Exception("message bus: every connection is busy");
    if (!idle_.empty()) {
      Connection connection = std::move(idle_.back());
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

void ConnectionPool::DiscardIdle() {
  std::vector<Connection> idle;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    idle.swap(idle_);
    open_ -= idle.size();
  }
  returned_.notify_all();
}

void ConnectionPool::Return(Connection connection) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    idle_.push_back(std::move(connection));
  }
  returned_.notify_one();
}

void ConnectionPool::Forget() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    --open_;
  }
  returned_.notify_one();
}

}  // namespace tevra::msgbus

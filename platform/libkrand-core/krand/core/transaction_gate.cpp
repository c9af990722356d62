#include "krand/core/transaction_gate.h"

namespace krand::core {

TransactionGate::Lock TransactionGate::Enter() {
  Lock lock(mutex_);
  given_back_.wait(lock, [this] { return !taken_ || IsTakenByThisThread(); });
  return lock;
}

void TransactionGate::Take() {
  taken_ = true;
  owner_ = std::this_thread::get_id();
}

void TransactionGate::GiveBack() {
  taken_ = false;
  given_back_.notify_all();
}

}  // namespace krand::core

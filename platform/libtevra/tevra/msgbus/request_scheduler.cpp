#include "tevra/msgbus/request_scheduler.h"

#include <utility>

namespace tevra::msgbus {

std::shared_ptr<RequestScheduler::Caller> RequestScheduler::CallerOf(
    const Credentials& credentials) {
  std::erase_if(callers_, [](const auto& item) { return item.second.expired(); });
  std::weak_ptr<Caller>& known = callers_[{credentials.uid, credentials.pid}];
  std::shared_ptr<Caller> caller = known.lock();
  if (!caller) known = caller = std::make_shared<Caller>();
  return caller;
}

void RequestScheduler::Add(const std::shared_ptr<Caller>& caller, Class cost,
                           std::shared_ptr<Request> request) {
  auto& own = caller->waiting_[cost];
  if (own.empty()) turns_[cost].push_back(caller);
  own.push_back(std::move(request));
  ++waiting_[cost];
}

bool RequestScheduler::RunSome() {
  if (waiting_[kCheap] > 0) {
    for (size_t left = waiting_[kCheap]; left > 0; --left) RunNext(kCheap);
  } else if (waiting_[kDear] > 0) {
    RunNext(kDear);
  }
  return waiting_[kCheap] + waiting_[kDear] > 0;
}

void RequestScheduler::RunNext(Class cost) {
  const std::shared_ptr<Caller> caller = std::move(turns_[cost].front());
  turns_[cost].pop_front();
  auto& own = caller->waiting_[cost];
  const std::shared_ptr<Request> request = std::move(own.front());
  own.pop_front();
  --waiting_[cost];
  if (!own.empty()) turns_[cost].push_back(caller);
  // Last: it may add requests, also the caller's next one.
  request->Run();
}

}  // namespace tevra::msgbus

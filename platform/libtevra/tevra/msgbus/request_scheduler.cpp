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

void RequestScheduler::Remove(Caller& caller, const Request& request) {
  for (const Class cost : {kCheap, kDear}) {
    auto& own = caller.waiting_[cost];
    const auto is_it = [&request](const auto& waiting) { return waiting.get() == &request; };
    const size_t removed = std::erase_if(own, is_it);
    waiting_[cost] -= removed;
    if (removed == 0 || !own.empty()) continue;
    std::erase_if(turns_[cost], [&caller](const auto& next) { return next.get() == &caller; });
  }
}

bool RequestScheduler::RunSome() {
  const size_t cheap = waiting_[kCheap];
  // One that runs may remove others.
  for (size_t left = cheap; left > 0 && waiting_[kCheap] > 0; --left) RunNext(kCheap);
  preferred_ = waiting_[kDear] > 0 ? preferred_ + cheap : 0;
  if (waiting_[kDear] > 0 && (cheap == 0 || preferred_ >= kPatience)) {
    preferred_ = 0;
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

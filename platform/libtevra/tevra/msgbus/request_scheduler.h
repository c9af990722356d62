#ifndef TEVRA_MSGBUS_REQUEST_SCHEDULER_H_
#define TEVRA_MSGBUS_REQUEST_SCHEDULER_H_

#include <array>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <utility>

#include "tevra/msgbus/msg_bus_msg.h"

namespace tevra::msgbus {

// Decides which of the waiting requests is next: cheap ones before dear ones, the callers of each
// class in turn, and a dear one as soon as a few hundred cheap ones have gone before it. So whoever
// asks something cheap waits for one dear request at the most, whoever asks something dear for one
// of each other caller, and no one can keep the dear ones waiting by asking cheap ones without end.
// On the dispatch thread.
class RequestScheduler final {
 public:
  enum Class { kCheap, kDear };

  // So many cheap requests may go before a dear one that waits; they take about as long as it does.
  static constexpr size_t kPatience = 256;

  class Request {
   public:
    virtual ~Request() = default;
    virtual void Run() = 0;
  };

  // Whose requests take turns with those of others. Its own run in the order in which they came.
  class Caller {
   public:
    size_t Waiting() const { return waiting_[kCheap].size() + waiting_[kDear].size(); }

   private:
    friend class RequestScheduler;
    std::array<std::deque<std::shared_ptr<Request>>, 2> waiting_;
  };

  // One caller for each process, however many connections it has.
  std::shared_ptr<Caller> CallerOf(const Credentials& credentials);
  void Add(const std::shared_ptr<Caller>& caller, Class cost, std::shared_ptr<Request> request);
  // Forgets a request that may be waiting, for the one who made it has gone.
  void Remove(Caller& caller, const Request& request);
  // Runs the cheap requests that wait now; without any, or after many, one dear one. Answers
  // whether more wait.
  bool RunSome();

 private:
  void RunNext(Class cost);

  // Callers with requests of the class, whose turn it is first.
  std::array<std::deque<std::shared_ptr<Caller>>, 2> turns_;
  std::array<size_t, 2> waiting_{};
  size_t preferred_ = 0;  // cheap requests run while a dear one waited
  std::map<std::pair<uid_t, pid_t>, std::weak_ptr<Caller>> callers_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_REQUEST_SCHEDULER_H_

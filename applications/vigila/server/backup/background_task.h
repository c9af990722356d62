#ifndef VIGILA_SERVER_BACKUP_BACKGROUND_TASK_H_
#define VIGILA_SERVER_BACKUP_BACKGROUND_TASK_H_

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <utility>

namespace vigila::server {

// Work that takes seconds, on a thread of its own and behind everything else that the device does.
// The work looks at the flag that it is given, and ends early once it is true.
template <typename Result>
class BackgroundTask final {
 public:
  template <typename Work>
  explicit BackgroundTask(Work work)
      : thread_([this, task = Task(std::move(work), result_)]() mutable {
          setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kNiceness);
          task(stop_);
        }) {}
  // Waits for the work, which is told to end early.
  ~BackgroundTask() {
    stop_ = true;
    thread_.join();
  }
  BackgroundTask(const BackgroundTask&) = delete;
  BackgroundTask& operator=(const BackgroundTask&) = delete;

  bool IsDone() const {
    return result_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }
  // Of work that is done. Throws what the work threw.
  const Result& Get() const { return result_.get(); }

 private:
  using Function = std::packaged_task<Result(const std::atomic<bool>&)>;

  static constexpr int kNiceness = 10;

  template <typename Work>
  static Function Task(Work work, std::shared_future<Result>& result) {
    Function task(std::move(work));
    result = task.get_future().share();
    return task;
  }

  std::atomic<bool> stop_ = false;
  std::shared_future<Result> result_;
  std::thread thread_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_BACKUP_BACKGROUND_TASK_H_

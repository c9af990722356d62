#ifndef TEVRA_MSGBUS_WATCH_STATES_H_
#define TEVRA_MSGBUS_WATCH_STATES_H_

#include <atomic>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

namespace tevra::msgbus {

// What this bus knows of the destinations it watches, and what its handlers must therefore be told
// when a call was answered: answers that were given while no broadcast came, and whatever was made
// of calls that failed, must not be kept. Any thread.
class WatchStates final {
 public:
  enum class News { kNone, kAppeared, kVanished };

  void Watch(const std::string& name);
  // Whether broadcasts come now.
  void SetEstablished(const std::string& name, bool established);
  void NoteFailedCall(const std::string& name);
  News AfterAnswer(const std::string& name);

 private:
  struct State {
    bool established = false;
    bool failed = false;  // a call, since the last answer
    bool IsSettled() const { return established && !failed; }
  };

  template <typename Change>
  void ChangeState(const std::string& name, Change change);

  std::atomic<size_t> unsettled_{0};  // so that an ordinary answer costs one load
  std::mutex mutex_;
  std::map<std::string, State> watched_;  // guarded by mutex_
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_WATCH_STATES_H_

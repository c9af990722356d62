#ifndef TEVRA_MSGBUS_DIRECT_DIRECTORY_WATCH_H_
#define TEVRA_MSGBUS_DIRECT_DIRECTORY_WATCH_H_

#include <string>

#include "tevra/msgbus/dispatch_thread.h"
#include "tevra/osa/descriptor.h"

namespace tevra::msgbus {

// Tells when something may have appeared in a directory, also in one that does not exist yet or
// goes away and comes back, as a runtime directory does with its service. On the dispatch thread.
class DirectoryWatch final {
 public:
  // `dispatch` must outlive the watch.
  DirectoryWatch(DispatchThread& dispatch, std::string directory, DispatchThread::Task changed);

  // Never fails: what stands in its way is tried again.
  void Start();

 private:
  void Open();
  void OnEvents(uint32_t events);
  void Arm();
  bool ArmOn(const std::string& directory);
  void Poll();

  DispatchThread& dispatch_;
  const std::string directory_;
  const DispatchThread::Task changed_;
  osa::Descriptor inotify_;
  DispatchThread::Id watch_ = 0;
  int armed_ = -1;         // the kernel's number for what is watched
  bool complete_ = false;  // the directory itself is watched, not one above it
  bool polling_ = false;
  bool complained_ = false;  // since inotify was there last
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_DIRECTORY_WATCH_H_

#ifndef TEVRA_MSGBUS_DIRECT_WATCHER_H_
#define TEVRA_MSGBUS_DIRECT_WATCHER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/bus_link.h"
#include "tevra/msgbus/directory_watch.h"
#include "tevra/msgbus/dispatch_thread.h"
#include "tevra/msgbus/request_dispatcher.h"

namespace tevra::msgbus {

// Keeps a listening connection to each watched destination of the direct transport, and says so
// when a destination has appeared and when it has vanished. "Appeared" is said after the server has
// confirmed that its broadcasts come here, so no change falls between the two. On the dispatch
// thread only.
class DirectWatcher final {
 public:
  // All must outlive the watcher.
  DirectWatcher(const BusConfig& config, DispatchThread& dispatch, RequestDispatcher& dispatcher);

  void Watch(const std::string& name);

 private:
  struct Watched {
    std::string name;
    std::unique_ptr<BusLink> link;
    Credentials server;
    DispatchThread::Id watch = 0;
    DispatchThread::Id timer = 0;
    uint32_t events = 0;
    uint64_t subscription = 0;  // serial of the call that asked for the broadcasts
    bool subscribed = false;
  };

  void TryAll();
  void Try(Watched& watched);
  void TryLater(Watched& watched, std::chrono::milliseconds delay);
  void Open(Watched& watched, BusFd socket);
  void OnReady(Watched& watched);
  void OnMessage(Watched& watched, sd_bus_message* message);
  void OnAnswer(Watched& watched, sd_bus_message* answer);
  void Close(Watched& watched);

  const BusConfig& config_;
  DispatchThread& dispatch_;
  RequestDispatcher& dispatcher_;
  DirectoryWatch directory_;
  std::map<std::string, std::unique_ptr<Watched>> watched_;  // only grows
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_WATCHER_H_

#ifndef TEVRA_MSGBUS_DIRECT_DIRECT_WATCHER_H_
#define TEVRA_MSGBUS_DIRECT_DIRECT_WATCHER_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/direct/directory_watch.h"
#include "tevra/msgbus/dispatch_thread.h"
#include "tevra/msgbus/i_msg_bus.h"
#include "tevra/msgbus/owned_socket.h"
#include "tevra/msgbus/subscribers.h"
#include "tevra/msgbus/wire/frame.h"
#include "tevra/msgbus/wire/frame_reader.h"

namespace tevra::msgbus {

// Keeps a listening connection to each watched destination of the direct transport, and says so
// when a destination has appeared and when it has vanished. "Appeared" is said after the server has
// confirmed that its broadcasts come here, so no change falls between the two. A connection that
// cannot be had, for whatever reason, is tried for again and again. On the dispatch thread only.
class DirectWatcher final {
 public:
  // All must outlive the watcher.
  DirectWatcher(const BusConfig& config, DispatchThread& dispatch, Subscribers& subscribers);

  void Watch(const std::string& name);
  IMsgBus::Shared SharedBy(const std::string& name) const;

 private:
  struct Watched {
    std::string name;
    OwnedSocket socket;
    std::unique_ptr<wire::FrameReader> reader;
    Credentials server;
    DispatchThread::Id watch = 0;
    DispatchThread::Id timer = 0;
    bool welcome = false;
    std::shared_ptr<const osa::Descriptor> shared;
    uint64_t instance = 0;
  };

  void TryAll();
  void Try(Watched& watched);
  void TryLater(Watched& watched, std::chrono::milliseconds delay);
  void Open(Watched& watched, OwnedSocket socket);
  void OnReady(Watched& watched);
  bool Read(Watched& watched);
  bool OnFrame(Watched& watched, std::string_view body);
  bool OnWelcome(Watched& watched, const wire::Frame& frame);
  void Close(Watched& watched);

  const BusConfig& config_;
  DispatchThread& dispatch_;
  Subscribers& subscribers_;
  DirectoryWatch directory_;
  std::map<std::string, std::unique_ptr<Watched>> watched_;  // only grows
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_DIRECT_WATCHER_H_

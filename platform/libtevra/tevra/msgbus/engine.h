#ifndef TEVRA_MSGBUS_ENGINE_H_
#define TEVRA_MSGBUS_ENGINE_H_

#include <atomic>
#include <memory>
#include <string>

#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/deadline.h"
#include "tevra/msgbus/dispatch_thread.h"
#include "tevra/msgbus/msg_bus_msg.h"
#include "tevra/msgbus/request_dispatcher.h"
#include "tevra/msgbus/subscribers.h"
#include "tevra/msgbus/transport.h"

namespace tevra::msgbus {

// What moves the messages of one bus or of several: an event loop, one watching connection to each
// destination that someone listens to, and the pools of connections that calls borrow. The loop's
// thread is started by the first who listens or serves; a call needs none. Any thread.
class Engine final {
 public:
  // The one that all buses of this process share which have this configuration and serve nothing.
  // It ends with the last of them.
  static std::shared_ptr<Engine> Shared(const BusConfig& config);

  // `requests` answers the calls of destinations that are served here; null when none will be. It
  // must outlive the engine.
  Engine(const BusConfig& config, RequestDispatcher* requests);
  // Waits for the loop's thread, so not on it.
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  std::unique_ptr<MsgBusMsg> Call(const MsgBusMsg& message, Deadline deadline);
  void Post(const MsgBusMsg& message, Deadline deadline);

  // `bus` hears of the destination from now on; after Unsubscribe none of its handlers runs here,
  // save the one that calls it.
  void Subscribe(RequestDispatcher& bus, const std::string& destination);
  void Unsubscribe(const RequestDispatcher& bus);
  // Tells a bus whether the destination that it watches is there: one of its own calls gave reason
  // to.
  void Tell(const RequestDispatcher& bus, const std::string& destination);

  DispatchThread& dispatch() { return dispatch_; }
  Transport& transport() { return *transport_; }

 private:
  void CloseIdleLater();

  const BusConfig config_;
  DispatchThread dispatch_;
  Subscribers subscribers_;
  std::unique_ptr<Transport> transport_;
  std::atomic<bool> closes_idle_{false};  // a look at the idle connections is due
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_ENGINE_H_

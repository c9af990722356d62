#ifndef TEVRA_MSGBUS_REQUEST_DISPATCHER_H_
#define TEVRA_MSGBUS_REQUEST_DISPATCHER_H_

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "tevra/msgbus/bus_link.h"
#include "tevra/msgbus/handler_table.h"

namespace tevra::msgbus {

// Takes what a connection received to its handler, and a call's answer back. The answer leaves when
// the handler returns; so a broadcast made by the handler is on its way before the caller knows
// that its call is done. Runs on the dispatch thread; SendReply on any.
class RequestDispatcher final {
 public:
  // Both must outlive the dispatcher. `bus` is what handlers get to see.
  RequestDispatcher(IMsgBus& bus, HandlerTable& handlers, size_t max_message_bytes);

  // False when `link` is dead.
  bool DispatchCall(BusLink& link, sd_bus_message* call, const std::string& destination,
                    const Credentials& caller);
  void DispatchSignal(sd_bus_message* signal, const Credentials& sender);
  void DispatchAppearance(const std::string& destination);
  void DispatchVanishing(const std::string& destination);

  // Keeps the answer for the call under way, the last one counts; drops it when its call has ended.
  void SendReply(const MsgBusMsg& reply);

 private:
  MsgBusMsg Answer(MsgBusMsg& request, sd_bus_message* call, bool expects_reply);
  MsgBusMsg RunHandler(MsgBusMsg& request);
  void DispatchLocal(const char* name, const std::string& destination);
  void RunListener(MsgBusMsg& message);

  IMsgBus& bus_;
  HandlerTable& handlers_;
  const size_t max_message_bytes_;
  uint64_t last_tag_ = 0;

  std::mutex mutex_;
  uint64_t current_tag_ = 0;        // guarded by mutex_; 0 between calls
  std::optional<MsgBusMsg> reply_;  // guarded by mutex_
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_REQUEST_DISPATCHER_H_

#ifndef TEVRA_MSGBUS_REQUEST_DISPATCHER_H_
#define TEVRA_MSGBUS_REQUEST_DISPATCHER_H_

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "tevra/msgbus/handler_table.h"
#include "tevra/msgbus/watch_states.h"

namespace tevra::msgbus {

// Takes a call to its handler and has its answer, which the transport sends when the handler has
// returned; so a broadcast made by the handler is on its way before the caller knows that its call
// is done. Runs on the dispatch thread; SendReply on any.
class RequestDispatcher final {
 public:
  // Both must outlive the dispatcher. `bus` is what handlers get to see.
  RequestDispatcher(IMsgBus& bus, HandlerTable& handlers, size_t max_message_bytes);

  bool IsDear(std::string_view interface, std::string_view member) {
    return handlers_.IsDear(interface, member);
  }
  HandlerTable& handlers() { return handlers_; }
  // Never longer than a message may be; the text of an error is valid UTF-8.
  MsgBusMsg Answer(MsgBusMsg& request, bool expects_reply);
  void DispatchSignal(MsgBusMsg& signal) { RunListener(signal); }
  // The broadcasts of a watched destination come from now on, or come no more.
  void DispatchAppearance(const std::string& destination);
  void DispatchVanishing(const std::string& destination);
  // What an answer has shown.
  void DispatchNews(WatchStates::News news, const std::string& destination);
  WatchStates& watches() { return watches_; }

  // Keeps the answer for the call under way, the last one counts; drops it when its call has ended.
  void SendReply(const MsgBusMsg& reply);

 private:
  MsgBusMsg RunHandler(MsgBusMsg& request);
  void DispatchLocal(const char* name, const std::string& destination);
  void RunListener(MsgBusMsg& message);

  IMsgBus& bus_;
  HandlerTable& handlers_;
  const size_t max_message_bytes_;
  uint64_t last_tag_ = 0;
  WatchStates watches_;

  std::mutex mutex_;
  uint64_t current_tag_ = 0;        // guarded by mutex_; 0 between calls
  std::optional<MsgBusMsg> reply_;  // guarded by mutex_
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_REQUEST_DISPATCHER_H_

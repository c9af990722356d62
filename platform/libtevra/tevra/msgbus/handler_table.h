#ifndef TEVRA_MSGBUS_HANDLER_TABLE_H_
#define TEVRA_MSGBUS_HANDLER_TABLE_H_

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "tevra/msgbus/i_msg_bus.h"

namespace tevra::msgbus {

// Who handles which message. Any thread registers; one thread at a time runs handlers, and no lock
// is held meanwhile.
class HandlerTable final {
 public:
  // Replaces the handler that held the same interface and name.
  void Register(const std::string& interface_name, const std::string& message_name,
                IMessageHandler* handler);
  // Removes the first registration in key order, and waits for a call of the handler that runs on
  // another thread.
  void Unregister(const IMessageHandler* handler);
  // Removes all, and waits for nothing.
  void Clear();
  // Runs the message's handler; false when there is none. What the handler throws passes through.
  bool Run(IMsgBus& bus, MsgBusMsg& message);
  // Whether the handler says so; false when there is none. On the thread that runs handlers.
  bool IsDear(std::string_view interface_name, std::string_view message_name);
  // Whether there is a handler for anything of the interface.
  bool HasInterface(std::string_view interface_name);
  // The interfaces with handlers, without the one of local messages.
  std::set<std::string> Interfaces();

 private:
  std::mutex mutex_;
  std::condition_variable idle_;
  // Guarded by mutex_.
  std::map<std::string, IMessageHandler*> handlers_;  // by interface, "#", name
  std::string key_;                                   // of the message at hand; kept for its memory
  const IMessageHandler* running_ = nullptr;
  std::thread::id runner_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_HANDLER_TABLE_H_

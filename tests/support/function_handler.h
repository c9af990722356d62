#ifndef SUPPORT_FUNCTION_HANDLER_H_
#define SUPPORT_FUNCTION_HANDLER_H_

#include <functional>
#include <utility>

#include "tevra/msgbus/i_msg_bus.h"

namespace support {

// A message handler made of a function.
class FunctionHandler final : public tevra::msgbus::IMessageHandler {
 public:
  using Function =
      std::function<void(tevra::msgbus::IMsgBus& bus, tevra::msgbus::MsgBusMsg& message)>;

  explicit FunctionHandler(Function function) : function_(std::move(function)) {}

  void HandleMessage(tevra::msgbus::IMsgBus& bus, tevra::msgbus::MsgBusMsg& message) override {
    function_(bus, message);
  }

 private:
  const Function function_;
};

}  // namespace support

#endif  // SUPPORT_FUNCTION_HANDLER_H_

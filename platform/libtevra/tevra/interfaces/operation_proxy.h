#ifndef TEVRA_INTERFACES_OPERATION_PROXY_H_
#define TEVRA_INTERFACES_OPERATION_PROXY_H_

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "tevra/interfaces/wire_type.h"
#include "tevra/msgbus/i_msg_bus.h"

namespace tevra::interfaces {

// Calls the operations of one interface of a destination. Throws AccessDenied when the server
// refuses the caller, tevra::osa::Exception when it cannot be reached, fails, or answers nonsense.
// Any thread.
class OperationProxy final {
 public:
  // `on_answer` sees every answer, an error too, on the thread that asked and before it has it. All
  // must outlive the proxy.
  OperationProxy(
      msgbus::IMsgBus* bus, const char* interface_name, const char* destination,
      std::function<void(const msgbus::MsgBusMsg&)> on_answer = [](const msgbus::MsgBusMsg&) {})
      : bus_(bus),
        interface_(interface_name),
        destination_(destination),
        on_answer_(std::move(on_answer)) {}

  // The checked answer of one operation; `signature` is the body it must have.
  template <typename... Arguments>
  std::unique_ptr<msgbus::MsgBusMsg> Exchange(const char* operation, const char* signature,
                                              const Arguments&... arguments) const {
    msgbus::MsgBusMsg request(interface_, operation, destination_);
    (request.Append(arguments), ...);
    return Send(operation, signature, request);
  }
  template <typename Result, typename... Arguments>
  Result Call(const char* operation, const Arguments&... arguments) const {
    return std::get<Result>(Exchange(operation, kSignatureOf<Result>, arguments...)->Body()[0]);
  }

  [[noreturn]] static void ThrowMalformed(const char* operation, const std::string& reason);

 private:
  std::unique_ptr<msgbus::MsgBusMsg> Send(const char* operation, const char* signature,
                                          msgbus::MsgBusMsg& request) const;

  msgbus::IMsgBus* const bus_;
  const char* const interface_;
  const char* const destination_;
  const std::function<void(const msgbus::MsgBusMsg&)> on_answer_;
};

}  // namespace tevra::interfaces

#endif  // TEVRA_INTERFACES_OPERATION_PROXY_H_

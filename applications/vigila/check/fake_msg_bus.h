#ifndef VIGILA_CHECK_FAKE_MSG_BUS_H_
#define VIGILA_CHECK_FAKE_MSG_BUS_H_

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "tevra/msgbus/i_msg_bus.h"

namespace tevra::check::fake {

// A message bus within one process: a sent message reaches the registered handler at once, on the
// caller's thread. Handlers are borrowed. Not synchronised; replies find their request only because
// delivery is synchronous. What cannot be delivered throws tevra::osa::Exception with one of the
// texts "not running", "unregistered destination" and "no handler"; what a handler throws reaches
// the sender.
class FakeMsgBus : public msgbus::IMsgBus {
 public:
  FakeMsgBus();
  ~FakeMsgBus() override;
  FakeMsgBus(const FakeMsgBus&) = delete;
  FakeMsgBus& operator=(const FakeMsgBus&) = delete;

  // Delivers whatever the destination, and drops a reply.
  void SendMsg(msgbus::MsgBusMsg& message) override;
  // `reply` is null when the handler sent none. The time-out plays no part.
  void SendMsgWaitForReply(msgbus::MsgBusMsg& message, std::unique_ptr<msgbus::MsgBusMsg>& reply,
                           int timeout_ms) override;
  void SendReply(const msgbus::MsgBusMsg& message) override;
  void StartServer() override;
  bool StartServer(const std::string& name) override;
  void StopServer() override;
  void StopServer(const std::string& name) override;
  void RegisterDestinationName(const std::string& name) override;
  void UnregisterDestinationName(const std::string& name) override;
  bool IsRunning() const override;
  // Replaces the handler that held the same interface and name.
  void RegisterMessageHandler(const std::string& message_name, const std::string& interface_name,
                              msgbus::IMessageHandler* handler) override;
  void UnregisterMessageHandler(msgbus::IMessageHandler* handler) override;

 private:
  msgbus::IMessageHandler& FindHandler(const msgbus::MsgBusMsg& message) const;
  std::unique_ptr<msgbus::MsgBusMsg> Deliver(msgbus::IMessageHandler& handler,
                                             msgbus::MsgBusMsg& message);

  bool running_ = false;
  std::set<std::string> destinations_;
  std::map<std::string, msgbus::IMessageHandler*> handlers_;  // by interface, "#", name
  uint32_t message_counter_ = 0;
  std::unique_ptr<msgbus::MsgBusMsg> pending_reply_;
};

}  // namespace tevra::check::fake

#endif  // VIGILA_CHECK_FAKE_MSG_BUS_H_

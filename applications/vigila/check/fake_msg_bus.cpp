#include "vigila/check/fake_msg_bus.h"

#include <algorithm>
#include <utility>

#include "tevra/osa/exception.h"

namespace tevra::check::fake {
namespace {

std::string HandlerKey(const std::string& interface_name, const std::string& message_name) {
  return interface_name + "#" + message_name;
}

}  // namespace

FakeMsgBus::FakeMsgBus() = default;
FakeMsgBus::~FakeMsgBus() = default;

void FakeMsgBus::SendMsg(msgbus::MsgBusMsg& message) {
  if (!running_) throw osa::Exception("not running");
  // Deliberate: the destination plays no part; the sender does not wait for its answer.
  Deliver(FindHandler(message), message);
}

void FakeMsgBus::SendMsgWaitForReply(msgbus::MsgBusMsg& message,
                                     std::unique_ptr<msgbus::MsgBusMsg>& reply, int) {
  if (!running_) throw osa::Exception("not running");
  if (!destinations_.contains(message.GetDestination())) {
    throw osa::Exception("unregistered destination");
  }
  reply = Deliver(FindHandler(message), message);
}

void FakeMsgBus::SendReply(const msgbus::MsgBusMsg& message) {
  pending_reply_ = std::make_unique<msgbus::MsgBusMsg>(message);
}

void FakeMsgBus::StartServer() {
  running_ = true;
}

bool FakeMsgBus::StartServer(const std::string& name) {
  RegisterDestinationName(name);
  running_ = true;
  return true;
}

void FakeMsgBus::StopServer() {
  running_ = false;
}

void FakeMsgBus::StopServer(const std::string& name) {
  running_ = false;
  UnregisterDestinationName(name);
}

void FakeMsgBus::RegisterDestinationName(const std::string& name) {
  destinations_.insert(name);
}

void FakeMsgBus::UnregisterDestinationName(const std::string& name) {
  destinations_.erase(name);
}

bool FakeMsgBus::IsRunning() const {
  return running_;
}

void FakeMsgBus::RegisterMessageHandler(const std::string& message_name,
                                        const std::string& interface_name,
                                        msgbus::IMessageHandler* handler) {
  handlers_[HandlerKey(interface_name, message_name)] = handler;
}

void FakeMsgBus::UnregisterMessageHandler(msgbus::IMessageHandler* handler) {
  // Contract: each call removes one registration, the one with the smallest key; a handler that was
  // registered under several names must be unregistered as many times.
  auto entry = std::find_if(handlers_.begin(), handlers_.end(),
                            [handler](const auto& item) { return item.second == handler; });
  if (entry != handlers_.end()) handlers_.erase(entry);
}

msgbus::IMessageHandler& FakeMsgBus::FindHandler(const msgbus::MsgBusMsg& message) const {
  auto entry = handlers_.find(HandlerKey(message.GetInterface(), message.GetName()));
  if (entry == handlers_.end()) throw osa::Exception("no handler");
  return *entry->second;
}

std::unique_ptr<msgbus::MsgBusMsg> FakeMsgBus::Deliver(msgbus::IMessageHandler& handler,
                                                       msgbus::MsgBusMsg& message) {
  message.SetSerial(++message_counter_);
  try {
    handler.HandleMessage(*this, message);
  } catch (...) {
    // A reply sent before the failure must not answer the next request.
    pending_reply_.reset();
    throw;
  }
  return std::exchange(pending_reply_, nullptr);
}

}  // namespace tevra::check::fake

#ifndef TEVRA_MSGBUS_MSG_BUS_H_
#define TEVRA_MSGBUS_MSG_BUS_H_

#include <memory>
#include <string>

#include "tevra/msgbus/i_msg_bus.h"

namespace tevra::msgbus {

// The host's message bus, over one of two transports chosen by [MsgBus] transport in the platform
// configuration.
//
//   direct  (default) a destination is a Unix socket of that name in [MsgBus] runtime_dir, speaking
//           a wire of its own (docs/reference/bus.md); no broker runs.
//   broker  [MsgBus] address: "system", "session" or a D-Bus address.
//
// Promises: handlers run one at a time on the bus's one dispatch thread; SendMsgWaitForReply runs
// from any number of threads at once and never waits past its deadline; a dead peer fails the call
// at once and the next call reconnects, also when the program has closed the bus's descriptors.
//
// Buses that serve nothing share their thread and their connections with all others of the process
// that have the same configuration, so the handlers of all of them run one at a time; the last one
// destroyed ends them. A bus that serves destinations has a thread and connections of its own.
//
// A bus belongs to the process that made it: in a child of fork it throws tevra::osa::Exception at
// once, or does nothing where there is nothing to report, and touches nothing of the parent's.
class MsgBus : public IMsgBus {
 public:
  MsgBus();
  ~MsgBus() override;
  MsgBus(const MsgBus&) = delete;
  MsgBus& operator=(const MsgBus&) = delete;

  void SendMsg(MsgBusMsg& message) override;
  void SendMsgWaitForReply(MsgBusMsg& message, std::unique_ptr<MsgBusMsg>& reply,
                           int timeout_ms) override;
  void SendReply(const MsgBusMsg& message) override;
  void StartServer() override;
  bool StartServer(const std::string& name) override;
  void StopServer() override;
  void StopServer(const std::string& name) override;
  void RegisterDestinationName(const std::string& name) override;
  void UnregisterDestinationName(const std::string& name) override;
  bool IsRunning() const override;
  void RegisterMessageHandler(const std::string& message_name, const std::string& interface_name,
                              IMessageHandler* handler) override;
  void UnregisterMessageHandler(IMessageHandler* handler) override;
  void WatchDestination(const std::string& name) override;
  bool HasPeers() const override { return true; }
  void ShareDescriptor(const std::string& destination, int descriptor) override;
  Shared SharedDescriptor(const std::string& destination) override;
  uint64_t Instance() const override;
  void Describe(const ServedInterface& served) override;
  void Withdraw(const std::string& interface_name) override;
  uint64_t StartTimer(std::chrono::milliseconds interval, std::function<void()> task) override;
  void StopTimer(uint64_t timer) override;

  // Whether anyone, of any user, serves the destination now. Throws tevra::osa::Exception when the
  // broker cannot be asked.
  bool HasServer(const std::string& name);

 private:
  class Impl;

  Impl& Own() const;

  std::unique_ptr<Impl> impl_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_MSG_BUS_H_

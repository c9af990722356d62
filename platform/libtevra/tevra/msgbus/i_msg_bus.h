#ifndef TEVRA_MSGBUS_I_MSG_BUS_H_
#define TEVRA_MSGBUS_I_MSG_BUS_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "tevra/msgbus/msg_bus_msg.h"
#include "tevra/osa/descriptor.h"

namespace tevra::msgbus {

class IMsgBus;
struct ServedInterface;

// Receives the messages of the names it was registered for. Handlers of one bus run one at a time,
// on the bus's dispatch thread. A handler answers a call with bus.SendReply before it returns; an
// exception that leaves it becomes an error reply.
class IMessageHandler {
 public:
  virtual ~IMessageHandler() = default;
  virtual void HandleMessage(IMsgBus& bus, MsgBusMsg& message) = 0;
  // Whether a call takes milliseconds rather than microseconds. Whoever waits for a cheap one is
  // served before those who wait for a dear one. Always the same, and asked on the bus's thread.
  virtual bool IsDear() const { return false; }
};

// A message bus. The order of the virtual operations is a contract with the platform.
class IMsgBus {
 public:
  // Interface and names of the local messages that tell a handler that a watched destination has
  // appeared (again), and that its broadcasts no longer come or could not be had. The body is the
  // destination's name. The first answer after a call that failed is an appearance, and an answer
  // that comes while the broadcasts do not is a vanishing: either way earlier answers may be stale.
  static constexpr const char* kLocalInterface = "tevra.msgbus.Local";
  static constexpr const char* kDestinationAppeared = "DestinationAppeared";
  static constexpr const char* kDestinationVanished = "DestinationVanished";

  virtual ~IMsgBus() = default;
  // One-way. With an empty destination: a broadcast to everyone who watches a destination that this
  // bus serves. Stamps the message's serial.
  virtual void SendMsg(MsgBusMsg& message) = 0;
  // Calls and waits for the answer, `timeout_ms` milliseconds at the most (-1: the configured
  // deadline). Throws tevra::osa::Exception when there is no answer. An error answer is an answer:
  // look at reply->IsError().
  virtual void SendMsgWaitForReply(MsgBusMsg& message, std::unique_ptr<MsgBusMsg>& reply,
                                   int timeout_ms) = 0;
  virtual void SendReply(const MsgBusMsg& message) = 0;
  virtual void StartServer() = 0;
  virtual bool StartServer(const std::string& name) = 0;
  virtual void StopServer() = 0;
  virtual void StopServer(const std::string& name) = 0;
  virtual void RegisterDestinationName(const std::string& name) = 0;
  virtual void UnregisterDestinationName(const std::string& name) = 0;
  virtual bool IsRunning() const = 0;
  // Handlers are borrowed; unregister before destroying one. Unregister removes one registration of
  // the handler per call, and returns only when no call of it is under way on another thread.
  virtual void RegisterMessageHandler(const std::string& message_name,
                                      const std::string& interface_name,
                                      IMessageHandler* handler) = 0;
  virtual void UnregisterMessageHandler(IMessageHandler* handler) = 0;

  // Behind the contract's slots: asks for the broadcasts of a destination and for
  // kDestinationAppeared and kDestinationVanished whenever it comes and goes. A bus without peers
  // has nothing to do.
  virtual void WatchDestination(const std::string& name) { static_cast<void>(name); }
  // Whether destinations are served by other processes, which come, go and hang by themselves.
  virtual bool HasPeers() const { return false; }

  // What a watched destination handed out when it last appeared.
  struct Shared {
    // Null when the server or the transport hands out none. Not a copy: that could fail.
    std::shared_ptr<const osa::Descriptor> descriptor;
    uint64_t instance = 0;  // of the server, as its answers tell it
  };
  // Hands a copy of `descriptor` to everyone with the role service who watches the destination from
  // now on. A bus that cannot pass descriptors has nothing to do.
  virtual void ShareDescriptor(const std::string& destination, int descriptor) {
    static_cast<void>(destination), static_cast<void>(descriptor);
  }
  virtual Shared SharedDescriptor(const std::string& destination) {
    static_cast<void>(destination);
    return {};
  }
  // The number that answers of this bus's servers tell as their instance; 0 where none is told.
  virtual uint64_t Instance() const { return 0; }

  // Tells those who ask what is served here; a bus whose callers cannot ask has nothing to do. Once
  // Withdraw has returned, no function of the description runs any more.
  virtual void Describe(const ServedInterface& served) { static_cast<void>(served); }
  virtual void Withdraw(const std::string& interface_name) { static_cast<void>(interface_name); }

  // For a bus that serves: runs `task` on the thread that runs the handlers, again and again. Once
  // StopTimer has returned it does not run any more. A bus without a thread has no timers.
  virtual uint64_t StartTimer(std::chrono::milliseconds interval, std::function<void()> task) {
    static_cast<void>(interval), static_cast<void>(task);
    return 0;
  }
  virtual void StopTimer(uint64_t timer) { static_cast<void>(timer); }
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_I_MSG_BUS_H_

#ifndef TEVRA_MSGBUS_TRANSPORT_H_
#define TEVRA_MSGBUS_TRANSPORT_H_

#include <memory>
#include <string>

#include "tevra/msgbus/deadline.h"
#include "tevra/msgbus/i_msg_bus.h"
#include "tevra/msgbus/served_interface.h"

namespace tevra::msgbus {

// How messages travel. Failures throw tevra::osa::Exception. A transport is destroyed after the
// dispatch thread has ended.
class Transport {
 public:
  virtual ~Transport() = default;

  // Any thread.
  virtual void CheckName(const std::string& name) const = 0;
  virtual std::unique_ptr<MsgBusMsg> Call(const MsgBusMsg& message, Deadline deadline) = 0;
  virtual void Post(const MsgBusMsg& message, Deadline deadline) = 0;  // wants no answer
  virtual bool HasServer(const std::string& name, Deadline deadline) = 0;
  // Closes the connections that no call has used since then; whether others are idle.
  virtual bool CloseIdle(std::chrono::steady_clock::time_point since) = 0;

  // On the dispatch thread.
  virtual void Serve(const std::string& name) = 0;
  virtual void StopServing(const std::string& name) = 0;
  virtual void Broadcast(const MsgBusMsg& message) = 0;
  virtual void Watch(const std::string& name) = 0;
  // What only some transports can.
  virtual void Share(const std::string& name, osa::Descriptor descriptor) {
    static_cast<void>(name), static_cast<void>(descriptor);
  }
  virtual IMsgBus::Shared SharedBy(const std::string& name) {
    static_cast<void>(name);
    return {};
  }
  virtual void Describe(const ServedInterface& served) { static_cast<void>(served); }
  virtual void Withdraw(const std::string& interface) { static_cast<void>(interface); }

  // Any thread.
  virtual uint64_t Instance() const { return 0; }
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_TRANSPORT_H_

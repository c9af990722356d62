#include "tevra/msgbus/msg_bus.h"

#include <atomic>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "tevra/msgbus/broker/broker_transport.h"
#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/direct/direct_transport.h"
#include "tevra/msgbus/dispatch_thread.h"
#include "tevra/msgbus/handler_table.h"
#include "tevra/msgbus/request_dispatcher.h"
#include "tevra/msgbus/transport.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/process_generation.h"

namespace tevra::msgbus {
namespace {

// What the user of a bus has asked for, apart from handlers.
struct Registrations {
  std::set<std::string> destinations;
  bool running = false;
};

}  // namespace

class MsgBus::Impl {
 public:
  explicit Impl(MsgBus& bus)
      : config_(BusConfig::FromPlatform()), dispatcher_(bus, handlers_, config_.max_message_bytes) {
    if (config_.transport == BusConfig::Transport::kDirect) {
      transport_ = std::make_unique<DirectTransport>(config_, dispatch_, dispatcher_);
    } else {
      transport_ = std::make_unique<BrokerTransport>(config_, dispatch_, dispatcher_);
    }
  }
  ~Impl() { dispatch_.Stop(); }

  bool IsInherited() const { return process_.IsInherited(); }
  HandlerTable& handlers() { return handlers_; }
  RequestDispatcher& dispatcher() { return dispatcher_; }
  DispatchThread& dispatch() { return dispatch_; }
  Transport& transport() { return *transport_; }

  Registrations CopyRegistrations() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return registrations_;
  }
  template <typename Change>
  void ChangeRegistrations(Change change) {
    const std::lock_guard<std::mutex> lock(mutex_);
    change(registrations_);
  }

  void Stamp(MsgBusMsg& message) { message.SetSerial(++last_serial_); }

  Deadline DeadlineAfter(int timeout_ms) const {
    const auto timeout = timeout_ms < 0 ? config_.timeout : std::chrono::milliseconds(timeout_ms);
    return std::chrono::steady_clock::now() + timeout;
  }

 private:
  const osa::ProcessGeneration process_;
  const BusConfig config_;
  std::atomic<uint32_t> last_serial_{0};
  DispatchThread dispatch_;
  HandlerTable handlers_;
  RequestDispatcher dispatcher_;
  std::unique_ptr<Transport> transport_;
  mutable std::mutex mutex_;
  Registrations registrations_;  // guarded by mutex_
};

MsgBus::Impl& MsgBus::Own() const {
  if (!impl_->IsInherited()) return *impl_;
  throw osa::Exception("message bus: this bus belongs to the process that made it");
}

MsgBus::MsgBus() : impl_(std::make_unique<Impl>(*this)) {}

// What a child of fork inherited is left alone: its thread is not there, its mutexes may be held
// for ever, and its epoll set is the parent's.
MsgBus::~MsgBus() {
  if (impl_->IsInherited()) static_cast<void>(impl_.release());
}

void MsgBus::SendMsg(MsgBusMsg& message) {
  Impl& own = Own();
  own.Stamp(message);
  if (!message.GetDestination().empty()) {
    return own.transport().Post(message, own.DeadlineAfter(-1));
  }
  // Without a server there is no one to hear a broadcast.
  if (!IsRunning()) return;
  Transport& transport = own.transport();
  if (own.dispatch().IsCurrent()) return transport.Broadcast(message);
  own.dispatch().Post([&transport, message] { transport.Broadcast(message); });
}

void MsgBus::SendMsgWaitForReply(MsgBusMsg& message, std::unique_ptr<MsgBusMsg>& reply,
                                 int timeout_ms) {
  Impl& own = Own();
  own.Stamp(message);
  reply = own.transport().Call(message, own.DeadlineAfter(timeout_ms));
}

void MsgBus::SendReply(const MsgBusMsg& message) {
  Own().dispatcher().SendReply(message);
}

void MsgBus::StartServer() {
  Impl& own = Own();
  own.dispatch().Invoke([&own] {
    const Registrations wanted = own.CopyRegistrations();
    std::vector<std::string> served;
    try {
      for (const std::string& name : wanted.destinations) {
        own.transport().Serve(name);
        served.push_back(name);
      }
    } catch (...) {
      if (!wanted.running) {
        for (const std::string& name : served) own.transport().StopServing(name);
      }
      throw;
    }
    own.ChangeRegistrations([](Registrations& now) { now.running = true; });
  });
}

bool MsgBus::StartServer(const std::string& name) {
  const bool is_new = !Own().CopyRegistrations().destinations.contains(name);
  RegisterDestinationName(name);
  try {
    StartServer();
  } catch (...) {
    if (is_new) UnregisterDestinationName(name);
    throw;
  }
  return true;
}

void MsgBus::StopServer() {
  if (!IsRunning()) return;
  Impl& own = Own();
  own.dispatch().Invoke([&own] {
    // First: a client whose connection ends may look at once whether the server runs.
    own.ChangeRegistrations([](Registrations& now) { now.running = false; });
    for (const std::string& name : own.CopyRegistrations().destinations) {
      own.transport().StopServing(name);
    }
  });
}

void MsgBus::StopServer(const std::string& name) {
  StopServer();
  UnregisterDestinationName(name);
}

void MsgBus::RegisterDestinationName(const std::string& name) {
  Impl& own = Own();
  own.transport().CheckName(name);
  if (IsRunning()) {
    own.dispatch().Invoke([&own, &name] { own.transport().Serve(name); });
  }
  own.ChangeRegistrations([&name](Registrations& now) { now.destinations.insert(name); });
}

void MsgBus::UnregisterDestinationName(const std::string& name) {
  if (impl_->IsInherited()) return;
  Impl& own = *impl_;
  own.ChangeRegistrations([&name](Registrations& now) { now.destinations.erase(name); });
  if (!IsRunning()) return;
  own.dispatch().Invoke([&own, &name] { own.transport().StopServing(name); });
}

bool MsgBus::IsRunning() const {
  return !impl_->IsInherited() && impl_->CopyRegistrations().running;
}

void MsgBus::RegisterMessageHandler(const std::string& message_name,
                                    const std::string& interface_name, IMessageHandler* handler) {
  Own().handlers().Register(interface_name, message_name, handler);
}

void MsgBus::UnregisterMessageHandler(IMessageHandler* handler) {
  if (!impl_->IsInherited()) impl_->handlers().Unregister(handler);
}

void MsgBus::WatchDestination(const std::string& name) {
  Impl& own = Own();
  own.transport().CheckName(name);
  Transport& transport = own.transport();
  own.dispatch().Post([&transport, name] { transport.Watch(name); });
}

bool MsgBus::HasServer(const std::string& name) {
  Impl& own = Own();
  own.transport().CheckName(name);
  return own.transport().HasServer(name, own.DeadlineAfter(-1));
}

}  // namespace tevra::msgbus

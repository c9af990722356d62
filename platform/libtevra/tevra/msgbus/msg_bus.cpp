#include "tevra/msgbus/msg_bus.h"

#include <atomic>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "tevra/msgbus/broker_transport.h"
#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/direct_transport.h"
#include "tevra/msgbus/dispatch_thread.h"
#include "tevra/msgbus/fork_registry.h"
#include "tevra/msgbus/handler_table.h"
#include "tevra/msgbus/request_dispatcher.h"
#include "tevra/msgbus/transport.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

// What the user of a bus has asked for, apart from handlers.
struct Registrations {
  std::set<std::string> destinations;
  std::set<std::string> watched;
  bool running = false;
};

// Everything that lives and dies with one process.
class Engine final {
 public:
  Engine(IMsgBus& bus, const BusConfig& config, Registrations registrations,
         HandlerTable::Handlers handlers)
      : handlers_(std::move(handlers)),
        dispatcher_(bus, handlers_, config.max_message_bytes),
        registrations_(std::move(registrations)) {
    if (config.transport == BusConfig::Transport::kDirect) {
      transport_ = std::make_unique<DirectTransport>(config, dispatch_, dispatcher_);
    } else {
      transport_ = std::make_unique<BrokerTransport>(config, dispatch_, dispatcher_);
    }
  }
  ~Engine() { dispatch_.Stop(); }

  uint64_t generation() const { return generation_; }
  HandlerTable& handlers() { return handlers_; }
  RequestDispatcher& dispatcher() { return dispatcher_; }
  DispatchThread& dispatch() { return dispatch_; }
  Transport& transport() { return *transport_; }
  Engine* next_abandoned = nullptr;

  Registrations CopyRegistrations() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return registrations_;
  }
  template <typename Change>
  void ChangeRegistrations(Change change) {
    const std::lock_guard<std::mutex> lock(mutex_);
    change(registrations_);
  }

 private:
  const uint64_t generation_ = ForkRegistry::Generation();
  DispatchThread dispatch_;
  HandlerTable handlers_;
  RequestDispatcher dispatcher_;
  std::unique_ptr<Transport> transport_;
  mutable std::mutex mutex_;
  Registrations registrations_;  // guarded by mutex_
  const ForkRegistry::HeldOverFork held_over_fork_{mutex_};
};

// A child of fork begins with copies of the parent's engines. Their threads are gone and sd-bus
// refuses to work on them, so they are kept out of the way, never destroyed.
void Abandon(Engine* engine) {
  static std::atomic<Engine*> abandoned{nullptr};
  engine->next_abandoned = abandoned.exchange(engine);
}

}  // namespace

class MsgBus::Impl {
 public:
  explicit Impl(MsgBus& bus)
      : bus_(bus),
        config_(BusConfig::FromPlatform()),
        engine_(new Engine(bus, config_, Registrations(), HandlerTable::Handlers())) {}

  ~Impl() {
    Engine* const engine = engine_.load();
    if (engine->generation() == ForkRegistry::Generation()) {
      delete engine;
    } else {
      Abandon(engine);
    }
  }

  Engine& engine() {
    Engine* const engine = engine_.load(std::memory_order_acquire);
    if (engine->generation() == ForkRegistry::Generation()) return *engine;
    return Revive();
  }

  void Stamp(MsgBusMsg& message) { message.SetSerial(++last_serial_); }

  Deadline DeadlineAfter(int timeout_ms) const {
    const auto timeout = timeout_ms < 0 ? config_.timeout : std::chrono::milliseconds(timeout_ms);
    return std::chrono::steady_clock::now() + timeout;
  }

 private:
  Engine& Revive() {
    Engine* inherited = engine_.load(std::memory_order_acquire);
    if (inherited->generation() == ForkRegistry::Generation()) return *inherited;
    Registrations registrations = inherited->CopyRegistrations();
    // The parent goes on serving what it serves.
    registrations.running = false;
    auto fresh =
        std::make_unique<Engine>(bus_, config_, registrations, inherited->handlers().Copy());
    Engine* const known = inherited;
    if (!engine_.compare_exchange_strong(inherited, fresh.get())) return *inherited;
    Abandon(known);
    Engine& engine = *fresh.release();
    for (const std::string& name : registrations.watched) {
      engine.dispatch().Post([&engine, name] { engine.transport().Watch(name); });
    }
    return engine;
  }

  MsgBus& bus_;
  const BusConfig config_;
  std::atomic<Engine*> engine_;
  std::atomic<uint32_t> last_serial_{0};
};

MsgBus::MsgBus() : impl_(std::make_unique<Impl>(*this)) {}

MsgBus::~MsgBus() = default;

void MsgBus::SendMsg(MsgBusMsg& message) {
  impl_->Stamp(message);
  Engine& engine = impl_->engine();
  if (!message.GetDestination().empty()) {
    return engine.transport().Post(message, impl_->DeadlineAfter(-1));
  }
  // Without a server there is nobody to hear a broadcast.
  if (!IsRunning()) return;
  Transport& transport = engine.transport();
  if (engine.dispatch().IsCurrent()) return transport.Broadcast(message);
  engine.dispatch().Post([&transport, message] { transport.Broadcast(message); });
}

void MsgBus::SendMsgWaitForReply(MsgBusMsg& message, std::unique_ptr<MsgBusMsg>& reply,
                                 int timeout_ms) {
  impl_->Stamp(message);
  reply = impl_->engine().transport().Call(message, impl_->DeadlineAfter(timeout_ms));
}

void MsgBus::SendReply(const MsgBusMsg& message) {
  impl_->engine().dispatcher().SendReply(message);
}

void MsgBus::StartServer() {
  Engine& engine = impl_->engine();
  engine.dispatch().Invoke([&engine] {
    const Registrations wanted = engine.CopyRegistrations();
    std::vector<std::string> served;
    try {
      for (const std::string& name : wanted.destinations) {
        engine.transport().Serve(name);
        served.push_back(name);
      }
    } catch (...) {
      if (!wanted.running) {
        for (const std::string& name : served) engine.transport().StopServing(name);
      }
      throw;
    }
    engine.ChangeRegistrations([](Registrations& now) { now.running = true; });
  });
}

bool MsgBus::StartServer(const std::string& name) {
  const bool is_new = !impl_->engine().CopyRegistrations().destinations.contains(name);
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
  Engine& engine = impl_->engine();
  if (!IsRunning()) return;
  engine.dispatch().Invoke([&engine] {
    for (const std::string& name : engine.CopyRegistrations().destinations) {
      engine.transport().StopServing(name);
    }
    engine.ChangeRegistrations([](Registrations& now) { now.running = false; });
  });
}

void MsgBus::StopServer(const std::string& name) {
  StopServer();
  UnregisterDestinationName(name);
}

void MsgBus::RegisterDestinationName(const std::string& name) {
  Engine& engine = impl_->engine();
  engine.transport().CheckName(name);
  if (IsRunning()) {
    engine.dispatch().Invoke([&engine, &name] { engine.transport().Serve(name); });
  }
  engine.ChangeRegistrations([&name](Registrations& now) { now.destinations.insert(name); });
}

void MsgBus::UnregisterDestinationName(const std::string& name) {
  Engine& engine = impl_->engine();
  engine.ChangeRegistrations([&name](Registrations& now) { now.destinations.erase(name); });
  if (!IsRunning()) return;
  engine.dispatch().Invoke([&engine, &name] { engine.transport().StopServing(name); });
}

bool MsgBus::IsRunning() const {
  return impl_->engine().CopyRegistrations().running;
}

void MsgBus::RegisterMessageHandler(const std::string& message_name,
                                    const std::string& interface_name, IMessageHandler* handler) {
  impl_->engine().handlers().Register(interface_name, message_name, handler);
}

void MsgBus::UnregisterMessageHandler(IMessageHandler* handler) {
  impl_->engine().handlers().Unregister(handler);
}

void MsgBus::WatchDestination(const std::string& name) {
  Engine& engine = impl_->engine();
  engine.transport().CheckName(name);
  engine.ChangeRegistrations([&name](Registrations& now) { now.watched.insert(name); });
  Transport& transport = engine.transport();
  engine.dispatch().Post([&transport, name] { transport.Watch(name); });
}

bool MsgBus::HasServer(const std::string& name) {
  Transport& transport = impl_->engine().transport();
  transport.CheckName(name);
  return transport.HasServer(name, impl_->DeadlineAfter(-1));
}

}  // namespace tevra::msgbus

#include "tevra/msgbus/msg_bus.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/engine.h"
#include "tevra/msgbus/handler_table.h"
#include "tevra/msgbus/request_dispatcher.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/process_generation.h"

namespace tevra::msgbus {
namespace {

// What the user of a bus has asked for, apart from handlers.
struct Registrations {
  std::set<std::string> destinations;
  std::set<std::string> watched;
  bool running = false;
};

}  // namespace

// A bus that serves nothing stands on the engine that it shares with others. One that serves gets
// an engine of its own, for its handlers must not wait for those of others.
class MsgBus::Impl {
 public:
  explicit Impl(MsgBus& bus)
      : config_(BusConfig::FromPlatform()),
        dispatcher_(bus, handlers_, config_.max_message_bytes) {}
  ~Impl() {
    if (Engine* const engine = engine_) engine->Unsubscribe(dispatcher_);
  }

  bool IsInherited() const { return process_.IsInherited(); }
  bool RunsTheCaller() const {
    Engine* const engine = engine_;
    return engine != nullptr && engine->dispatch().IsCurrent();
  }
  // For a bus that is destroyed by a handler: no handler runs any more. The rest waits, on a thread
  // of its own, until the running one has returned to what it came from, and for the end of the
  // engine's thread if this was its last bus.
  static void DestroyElsewhere(std::unique_ptr<Impl> impl) {
    impl->handlers_.Clear();
    impl->engine().Unsubscribe(impl->dispatcher_);
    std::thread([held = std::move(impl)] {}).detach();
  }
  HandlerTable& handlers() { return handlers_; }
  RequestDispatcher& dispatcher() { return dispatcher_; }

  Engine& engine() {
    Engine* const engine = engine_.load(std::memory_order_acquire);
    return engine != nullptr ? *engine : SharedEngine();
  }
  bool HasOwnEngine() const { return has_own_engine_; }
  Engine& OwnEngine() {
    const std::lock_guard<std::mutex> lock(engine_mutex_);
    if (!own_) {
      if (shared_) shared_->Unsubscribe(dispatcher_);
      own_ = std::make_unique<Engine>(config_, &dispatcher_);
      for (const std::string& name : CopyRegistrations().watched) {
        dispatcher_.watches().SetEstablished(name, false);
        own_->Subscribe(dispatcher_, name);
      }
      engine_.store(own_.get(), std::memory_order_release);
      has_own_engine_ = true;
    }
    return *own_;
  }
  void Watch(const std::string& name) {
    Engine& engine = this->engine();
    engine.transport().CheckName(name);
    const std::lock_guard<std::mutex> lock(engine_mutex_);
    ChangeRegistrations([&name](Registrations& now) { now.watched.insert(name); });
    dispatcher_.watches().Watch(name);
    engine_.load()->Subscribe(dispatcher_, name);
  }

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
  Engine& SharedEngine() {
    const std::lock_guard<std::mutex> lock(engine_mutex_);
    if (engine_.load() == nullptr) {
      shared_ = Engine::Shared(config_);
      engine_ = shared_.get();
    }
    return *engine_;
  }

  const osa::ProcessGeneration process_;
  const BusConfig config_;
  std::atomic<uint32_t> last_serial_{0};
  HandlerTable handlers_;
  RequestDispatcher dispatcher_;
  mutable std::mutex mutex_;
  Registrations registrations_;  // guarded by mutex_

  std::mutex engine_mutex_;
  // Guarded by engine_mutex_; each made once, and kept for the calls that are under way.
  std::shared_ptr<Engine> shared_;
  std::unique_ptr<Engine> own_;
  // The one in use; null until there is need of one.
  std::atomic<Engine*> engine_{nullptr};
  std::atomic<bool> has_own_engine_{false};
};

MsgBus::Impl& MsgBus::Own() const {
  if (!impl_->IsInherited()) return *impl_;
  throw osa::Exception("message bus: this bus belongs to the process that made it");
}

MsgBus::MsgBus() : impl_(std::make_unique<Impl>(*this)) {}

// What a child of fork inherited is left alone: its thread is not there, its mutexes may be held
// for ever, and its epoll set is the parent's.
MsgBus::~MsgBus() {
  if (impl_->IsInherited()) {
    static_cast<void>(impl_.release());
  } else if (impl_->RunsTheCaller()) {
    Impl::DestroyElsewhere(std::move(impl_));
  }
}

void MsgBus::SendMsg(MsgBusMsg& message) {
  Impl& own = Own();
  own.Stamp(message);
  if (!message.GetDestination().empty()) {
    return own.engine().Post(message, own.DeadlineAfter(-1));
  }
  // Without a server there is no one to hear a broadcast.
  if (!IsRunning() || !own.HasOwnEngine()) return;
  Engine& engine = own.engine();
  if (engine.dispatch().IsCurrent()) return engine.transport().Broadcast(message);
  engine.dispatch().Post([&engine, message] { engine.transport().Broadcast(message); });
}

void MsgBus::SendMsgWaitForReply(MsgBusMsg& message, std::unique_ptr<MsgBusMsg>& reply,
                                 int timeout_ms) {
  Impl& own = Own();
  own.Stamp(message);
  Engine& engine = own.engine();
  const std::string& name = message.GetDestination();
  WatchStates& watches = own.dispatcher().watches();
  try {
    reply = engine.Call(message, own.DeadlineAfter(timeout_ms));
  } catch (...) {
    watches.NoteFailedCall(name);
    throw;
  }
  if (watches.AfterAnswer(name) != WatchStates::News::kNone) engine.Tell(own.dispatcher(), name);
}

void MsgBus::SendReply(const MsgBusMsg& message) {
  Own().dispatcher().SendReply(message);
}

void MsgBus::StartServer() {
  Impl& own = Own();
  const auto run = [&own] {
    own.ChangeRegistrations([](Registrations& now) { now.running = true; });
  };
  if (!own.HasOwnEngine()) return run();
  Engine& engine = own.engine();
  engine.dispatch().Invoke([&] {
    const Registrations wanted = own.CopyRegistrations();
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
    run();
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
  const auto stop = [&own] {
    own.ChangeRegistrations([](Registrations& now) { now.running = false; });
  };
  if (!own.HasOwnEngine()) return stop();
  Engine& engine = own.engine();
  engine.dispatch().Invoke([&] {
    // First: a client whose connection ends may look at once whether the server runs.
    stop();
    for (const std::string& name : own.CopyRegistrations().destinations) {
      engine.transport().StopServing(name);
    }
  });
}

void MsgBus::StopServer(const std::string& name) {
  StopServer();
  UnregisterDestinationName(name);
}

void MsgBus::RegisterDestinationName(const std::string& name) {
  Impl& own = Own();
  Engine& engine = own.OwnEngine();
  engine.transport().CheckName(name);
  if (IsRunning()) engine.dispatch().Invoke([&] { engine.transport().Serve(name); });
  own.ChangeRegistrations([&name](Registrations& now) { now.destinations.insert(name); });
}

void MsgBus::UnregisterDestinationName(const std::string& name) {
  if (impl_->IsInherited()) return;
  impl_->ChangeRegistrations([&name](Registrations& now) { now.destinations.erase(name); });
  if (!IsRunning() || !impl_->HasOwnEngine()) return;
  Engine& engine = impl_->engine();
  engine.dispatch().Invoke([&] { engine.transport().StopServing(name); });
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
  Own().Watch(name);
}

void MsgBus::ShareDescriptor(const std::string& destination, int descriptor) {
  Engine& engine = Own().OwnEngine();
  engine.transport().CheckName(destination);
  engine.dispatch().Invoke([&] {
    osa::Descriptor copy(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
    if (!copy) throw osa::Exception("message bus: nothing to share: %s", strerror(errno));
    engine.transport().Share(destination, std::move(copy));
  });
}

IMsgBus::Shared MsgBus::SharedDescriptor(const std::string& destination) {
  Engine& engine = Own().engine();
  Shared shared;
  engine.dispatch().Invoke([&] { shared = engine.transport().SharedBy(destination); });
  return shared;
}

uint64_t MsgBus::Instance() const {
  return Own().OwnEngine().transport().Instance();
}

void MsgBus::Describe(const ServedInterface& served) {
  Engine& engine = Own().OwnEngine();
  engine.dispatch().Invoke([&] { engine.transport().Describe(served); });
}

void MsgBus::Withdraw(const std::string& interface_name) {
  if (impl_->IsInherited()) return;
  Engine& engine = Own().OwnEngine();
  engine.dispatch().Invoke([&] { engine.transport().Withdraw(interface_name); });
}

uint64_t MsgBus::StartTimer(std::chrono::milliseconds interval, std::function<void()> task) {
  DispatchThread& dispatch = Own().OwnEngine().dispatch();
  uint64_t timer = 0;
  dispatch.Invoke([&] { timer = dispatch.Every(interval, std::move(task)); });
  return timer;
}

void MsgBus::StopTimer(uint64_t timer) {
  if (impl_->IsInherited()) return;
  DispatchThread& dispatch = Own().OwnEngine().dispatch();
  dispatch.Invoke([&] { dispatch.Cancel(timer); });
}

bool MsgBus::HasServer(const std::string& name) {
  Impl& own = Own();
  Transport& transport = own.engine().transport();
  transport.CheckName(name);
  return transport.HasServer(name, own.DeadlineAfter(-1));
}

}  // namespace tevra::msgbus

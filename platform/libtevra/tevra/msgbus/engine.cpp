#include "tevra/msgbus/engine.h"

#include <mutex>
#include <vector>

#include "tevra/msgbus/broker/broker_transport.h"
#include "tevra/msgbus/direct/direct_transport.h"
#include "tevra/osa/per_process.h"

namespace tevra::msgbus {
namespace {

struct Registry {
  struct Entry {
    BusConfig config;
    std::weak_ptr<Engine> engine;
  };
  std::mutex mutex;
  std::vector<Entry> entries;  // guarded by mutex
};

constinit osa::PerProcess<Registry> registry;

}  // namespace

std::shared_ptr<Engine> Engine::Shared(const BusConfig& config) {
  Registry& known = registry.Get();
  const std::lock_guard<std::mutex> lock(known.mutex);
  std::erase_if(known.entries, [](const auto& entry) { return entry.engine.expired(); });
  for (const Registry::Entry& entry : known.entries) {
    if (entry.config != config) continue;
    if (std::shared_ptr<Engine> engine = entry.engine.lock()) return engine;
  }
  auto engine = std::make_shared<Engine>(config, nullptr);
  known.entries.push_back({config, engine});
  return engine;
}

Engine::Engine(const BusConfig& config, RequestDispatcher* requests) : config_(config) {
  if (config_.transport == BusConfig::Transport::kDirect) {
    transport_ = std::make_unique<DirectTransport>(config_, dispatch_, requests, subscribers_);
  } else {
    transport_ = std::make_unique<BrokerTransport>(config_, dispatch_, requests, subscribers_);
  }
}

Engine::~Engine() {
  dispatch_.Stop();
}

std::unique_ptr<MsgBusMsg> Engine::Call(const MsgBusMsg& message, Deadline deadline) {
  std::unique_ptr<MsgBusMsg> answer = transport_->Call(message, deadline);
  CloseIdleLater();
  return answer;
}

void Engine::Post(const MsgBusMsg& message, Deadline deadline) {
  transport_->Post(message, deadline);
  CloseIdleLater();
}

void Engine::Subscribe(RequestDispatcher& bus, const std::string& destination) {
  dispatch_.Post([this, &bus, destination] {
    subscribers_.Add(bus, destination);
    transport_->Watch(destination);
  });
}

void Engine::Tell(const RequestDispatcher& bus, const std::string& destination) {
  // By then the bus may be gone.
  dispatch_.Post([this, known = &bus, destination] { subscribers_.TellOne(known, destination); });
}

void Engine::Unsubscribe(const RequestDispatcher& bus) {
  if (!dispatch_.IsStarted()) return;
  dispatch_.Invoke([this, &bus] { subscribers_.Remove(bus); });
}

// A timer runs only while connections are open. Who never listened has no loop for it, and keeps
// them: a command that asks and ends.
void Engine::CloseIdleLater() {
  if (closes_idle_.load(std::memory_order_relaxed) || !dispatch_.IsStarted()) return;
  if (closes_idle_.exchange(true)) return;
  dispatch_.Post([this] {
    dispatch_.After(config_.idle_timeout, [this] {
      // Before the look, so that a connection that comes back meanwhile is looked at later.
      closes_idle_ = false;
      if (transport_->CloseIdle(std::chrono::steady_clock::now() - config_.idle_timeout)) {
        CloseIdleLater();
      }
    });
  });
}

}  // namespace tevra::msgbus

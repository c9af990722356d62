#include "tevra/msgbus/handler_table.h"

#include <algorithm>

namespace tevra::msgbus {

void HandlerTable::Register(const std::string& interface_name, const std::string& message_name,
                            IMessageHandler* handler) {
  const std::lock_guard<std::mutex> lock(mutex_);
  handlers_[interface_name + "#" + message_name] = handler;
}

void HandlerTable::Unregister(const IMessageHandler* handler) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto entry = std::find_if(handlers_.begin(), handlers_.end(),
                                  [handler](const auto& item) { return item.second == handler; });
  if (entry != handlers_.end()) handlers_.erase(entry);
  idle_.wait(lock, [this, handler] {
    return running_ != handler || runner_ == std::this_thread::get_id();
  });
}

void HandlerTable::Clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  handlers_.clear();
}

bool HandlerTable::Run(IMsgBus& bus, MsgBusMsg& message) {
  IMessageHandler* handler = nullptr;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    key_.assign(message.GetInterface()).append("#").append(message.GetName());
    const auto entry = handlers_.find(key_);
    if (entry == handlers_.end()) return false;
    handler = entry->second;
    running_ = handler;
    runner_ = std::this_thread::get_id();
  }
  struct Finish {
    HandlerTable& table;
    ~Finish() {
      const std::lock_guard<std::mutex> lock(table.mutex_);
      table.running_ = nullptr;
      table.idle_.notify_all();
    }
  } finish{*this};
  handler->HandleMessage(bus, message);
  return true;
}

bool HandlerTable::IsDear(std::string_view interface_name, std::string_view message_name) {
  const std::lock_guard<std::mutex> lock(mutex_);
  key_.assign(interface_name).append("#").append(message_name);
  const auto entry = handlers_.find(key_);
  return entry != handlers_.end() && entry->second->IsDear();
}

bool HandlerTable::HasInterface(std::string_view interface_name) {
  const std::lock_guard<std::mutex> lock(mutex_);
  key_.assign(interface_name).append("#");
  const auto entry = handlers_.lower_bound(key_);
  return interface_name != IMsgBus::kLocalInterface && entry != handlers_.end() &&
         entry->first.starts_with(key_);
}

std::set<std::string> HandlerTable::Interfaces() {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::set<std::string> names;
  for (const auto& [key, handler] : handlers_) names.insert(key.substr(0, key.find('#')));
  names.erase(IMsgBus::kLocalInterface);
  return names;
}

}  // namespace tevra::msgbus

#include "tevra/core/config_key.h"

#include <atomic>

namespace tevra::core {
namespace {

// Libraries may be loaded by several threads.
constinit std::atomic<const ConfigKey*> g_last{nullptr};

}  // namespace

ConfigKey::ConfigKey(const char* section, const char* name, const char* fallback)
    : section_(section), name_(name), fallback_(fallback), next_(g_last.exchange(this)) {}

std::vector<const ConfigKey*> ConfigKey::All() {
  std::vector<const ConfigKey*> keys;
  for (const ConfigKey* key = g_last.load(); key != nullptr; key = key->next_) keys.push_back(key);
  return keys;
}

}  // namespace tevra::core

#include "tevra/core/platform_config.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "tevra/core/logger.h"
#include "tevra/osa/exception.h"

namespace tevra::core {
namespace {

// Never destroyed: objects with static storage may read it while they are torn down.
struct Shared {
  std::mutex mutex;
  std::atomic<bool> loaded{false};
  PlatformConfig config;
};

Shared& TheShared() {
  static Shared* const shared = new Shared;
  return *shared;
}

IniFile LoadDefault() {
  const char* named = getenv(PlatformConfig::kEnvironmentVariable);
  if (named != nullptr && *named != '\0') return IniFile::Load(named);
  if (access(PlatformConfig::kDefaultPath, F_OK) != 0 && errno == ENOENT) return IniFile();
  return IniFile::Load(PlatformConfig::kDefaultPath);
}

}  // namespace

const PlatformConfig& PlatformConfig::Get() {
  Shared& shared = TheShared();
  if (shared.loaded.load(std::memory_order_acquire)) return shared.config;
  const std::lock_guard<std::mutex> lock(shared.mutex);
  if (!shared.loaded.load(std::memory_order_relaxed)) {
    shared.config.file_ = LoadDefault();
    shared.loaded.store(true, std::memory_order_release);
  }
  return shared.config;
}

void PlatformConfig::Replace(const IniFile& file) {
  Shared& shared = TheShared();
  {
    const std::lock_guard<std::mutex> lock(shared.mutex);
    shared.config.file_ = file;
    shared.loaded.store(true, std::memory_order_release);
  }
  Logger::ForgetConfiguredLevel();
}

void PlatformConfig::LoadFrom(const std::string& path) {
  Replace(IniFile::Load(path));
}

std::string PlatformConfig::GetString(const ConfigKey& key) const {
  return file_.Get(key.section(), key.name()).value_or(key.fallback());
}

long PlatformConfig::GetInt(const ConfigKey& key, long minimum, long maximum) const {
  const std::string text = GetString(key);
  char* end = nullptr;
  errno = 0;
  const long value = strtol(text.c_str(), &end, 10);
  const bool whole = errno == 0 && end != text.c_str() && *end == '\0';
  if (!whole || value < minimum || value > maximum) {
    throw osa::Exception("[%s] %s = %s: not a whole number from %ld to %ld", key.section(),
                         key.name(), text.c_str(), minimum, maximum);
  }
  return value;
}

bool PlatformConfig::GetBool(const ConfigKey& key) const {
  const std::string text = GetString(key);
  for (const char* yes : {"true", "yes", "on", "1"}) {
    if (text == yes) return true;
  }
  for (const char* no : {"false", "no", "off", "0"}) {
    if (text == no) return false;
  }
  throw osa::Exception("[%s] %s = %s: neither true nor false", key.section(), key.name(),
                       text.c_str());
}

}  // namespace tevra::core

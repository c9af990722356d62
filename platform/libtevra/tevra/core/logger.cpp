#include "tevra/core/logger.h"

#include <pthread.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "tevra/core/default_sink.h"
#include "tevra/core/platform_config.h"

namespace tevra::core {
namespace {

constexpr size_t kMaxText = 4 * 1024 * 1024;
constexpr char kCut[] = " (cut)";
constexpr int kUnknown = 0;

// A Level, or kUnknown until somebody asks. Outside Shared, for the one load of IsEnabled.
std::atomic<int> g_level{kUnknown};
std::atomic<bool> g_level_is_set{false};

// Never destroyed: objects with static storage may log while they are torn down.
struct Shared {
  std::mutex registry_mutex;
  std::map<std::string, std::unique_ptr<Logger>> loggers;

  std::mutex sink_mutex;  // held during Write
  Logger::Sink* sink = nullptr;
  DefaultSink default_sink;
};

Shared& TheShared();

// A child of fork that inherited a mutex from a thread that was just logging could never log.
void BeforeFork() {
  TheShared().registry_mutex.lock();
  TheShared().sink_mutex.lock();
}

void AfterFork() {
  TheShared().sink_mutex.unlock();
  TheShared().registry_mutex.unlock();
}

Shared& TheShared() {
  static Shared* const shared = [] {
    auto* made = new Shared;
    pthread_atfork(BeforeFork, AfterFork, AfterFork);
    return made;
  }();
  return *shared;
}

void Deliver(Logger::Level level, const std::string& logger, const std::string& text) {
  Shared& shared = TheShared();
  const std::lock_guard<std::mutex> lock(shared.sink_mutex);
  Logger::Sink* const sink = shared.sink != nullptr ? shared.sink : &shared.default_sink;
  sink->Write(level, logger, text);
}

std::optional<Logger::Level> LevelFromText(const std::string& text) {
  static constexpr struct {
    const char* name;
    const char* number;
    Logger::Level level;
  } kLevels[] = {{"error", "3", Logger::kError},
                 {"warning", "4", Logger::kWarning},
                 {"notice", "5", Logger::kNotice},
                 {"information", "6", Logger::kInformation},
                 {"debug", "7", Logger::kDebug}};
  for (const auto& entry : kLevels) {
    if (text == entry.name || text == entry.number) return entry.level;
  }
  return std::nullopt;
}

// Never throws; `complaint` says why the level is not the one that was asked for.
Logger::Level ConfiguredLevel(std::string& complaint) {
  std::string text;
  try {
    const char* environment = getenv("TEVRA_LOG_LEVEL");
    text = environment != nullptr && *environment != '\0'
               ? environment
               : PlatformConfig::Get().GetString("Logging", "level", "notice");
  } catch (const std::exception& error) {
    complaint = error.what();
    return Logger::kNotice;
  }
  const std::optional<Logger::Level> level = LevelFromText(text);
  if (!level) complaint = '"' + text + "\" is none";
  return level.value_or(Logger::kNotice);
}

int InitializeLevel() {
  std::string complaint;
  int expected = kUnknown;
  const int level = ConfiguredLevel(complaint);
  if (!g_level.compare_exchange_strong(expected, level)) return expected;
  if (!complaint.empty()) {
    Deliver(Logger::kWarning, "Logger", "no usable log level, so it is notice: " + complaint);
  }
  return level;
}

std::string Format(const char* format, va_list arguments) {
  char small[512];
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(small, sizeof(small), format, arguments);
  std::string text;
  if (length < 0) {
    text = format;  // better the bare format than no line
  } else if (static_cast<size_t>(length) < sizeof(small)) {
    text.assign(small, static_cast<size_t>(length));
  } else {
    const bool cut = static_cast<size_t>(length) > kMaxText;
    text.resize(cut ? kMaxText : static_cast<size_t>(length));
    vsnprintf(text.data(), text.size() + 1, format, again);
    if (cut) text += kCut;
  }
  va_end(again);
  return text;
}

}  // namespace

Logger* Logger::GetLogger(const std::string& name) {
  Shared& shared = TheShared();
  const std::lock_guard<std::mutex> lock(shared.registry_mutex);
  std::unique_ptr<Logger>& logger = shared.loggers[name];
  if (!logger) logger.reset(new Logger(name));
  return logger.get();
}

std::vector<std::string> Logger::Names() {
  Shared& shared = TheShared();
  const std::lock_guard<std::mutex> lock(shared.registry_mutex);
  std::vector<std::string> names;
  for (const auto& [name, logger] : shared.loggers) names.push_back(name);
  return names;
}

void Logger::SetLevel(Level level) {
  g_level_is_set.store(true);
  g_level.store(level);
}

Logger::Level Logger::GetLevel() {
  const int level = g_level.load(std::memory_order_relaxed);
  return static_cast<Level>(level != kUnknown ? level : InitializeLevel());
}

bool Logger::IsEnabled(Level level) {
  return level <= GetLevel();
}

Logger::Sink* Logger::SetSink(Sink* sink) {
  Shared& shared = TheShared();
  const std::lock_guard<std::mutex> lock(shared.sink_mutex);
  Sink* const previous = shared.sink;
  shared.sink = sink;
  return previous;
}

void Logger::UseConfiguredLevel() {
  g_level_is_set.store(false);
  g_level.store(kUnknown);
}

void Logger::ForgetConfiguredLevel() {
  if (!g_level_is_set.load()) g_level.store(kUnknown);
}

void Logger::LogV(Level level, const char* format, va_list arguments) {
  if (!IsEnabled(level)) return;
  try {
    Deliver(level, name_, Format(format, arguments));
  } catch (const std::exception&) {
    // No memory for the line. The caller's work is worth more than its report.
  }
}

#define TEVRA_LOGGER_METHOD(Method, level)       \
  void Logger::Method(const char* format, ...) { \
    if (!IsEnabled(level)) return;               \
    va_list arguments;                           \
    va_start(arguments, format);                 \
    LogV(level, format, arguments);              \
    va_end(arguments);                           \
  }

TEVRA_LOGGER_METHOD(Debug, kDebug)
TEVRA_LOGGER_METHOD(Information, kInformation)
TEVRA_LOGGER_METHOD(Notice, kNotice)
TEVRA_LOGGER_METHOD(Warning, kWarning)
TEVRA_LOGGER_METHOD(Error, kError)

#undef TEVRA_LOGGER_METHOD

}  // namespace tevra::core

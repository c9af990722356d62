#include "tevra/core/logger.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>

#include "tevra/core/default_sink.h"
#include "tevra/core/platform_config.h"
#include "tevra/osa/held_cancellation.h"
#include "tevra/osa/per_process.h"

namespace tevra::core {
namespace {

constexpr size_t kMaxText = 4 * 1024 * 1024;
constexpr char kCut[] = " (cut)";
constexpr int kUnknown = 0;

// A Level, or kUnknown until someone asks.
std::atomic<int> g_level{kUnknown};
std::atomic<bool> g_level_is_set{false};

// The list of all loggers. It only grows, and without a lock: a child of fork, and a thread that
// runs on while the process ends, find it whole.
std::atomic<Logger*> g_loggers{nullptr};

std::atomic<Logger::Sink*> g_sink{nullptr};  // null: the default

struct Outlet {
  std::mutex mutex;  // held during Write
  DefaultSink default_sink;
};

constinit osa::PerProcess<Outlet> g_outlet;

void Deliver(Logger::Level level, const std::string& logger, const std::string& text) {
  const osa::HeldCancellation held;
  Outlet& outlet = g_outlet.Get();
  const std::lock_guard<std::mutex> lock(outlet.mutex);
  Logger::Sink* const own = g_sink.load();
  (own != nullptr ? *own : outlet.default_sink).Write(level, logger, text);
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

const ConfigKey kLevel{"Logging", "level", "notice"};

// Never throws; `complaint` says why the level is not the one that was asked for.
Logger::Level ConfiguredLevel(std::string& complaint) {
  std::string text;
  try {
    const char* environment = getenv("TEVRA_LOG_LEVEL");
    text = environment != nullptr && *environment != '\0' ? environment
                                                          : PlatformConfig::Get().GetString(kLevel);
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
  std::unique_ptr<Logger> made;
  Logger* first = g_loggers.load(std::memory_order_acquire);
  for (;;) {
    for (Logger* logger = first; logger != nullptr; logger = logger->next_) {
      if (logger->name_ == name) return logger;
    }
    if (!made) made.reset(new Logger(name));
    made->next_ = first;
    if (g_loggers.compare_exchange_weak(first, made.get(), std::memory_order_acq_rel)) {
      return made.release();
    }
  }
}

std::vector<std::string> Logger::Names() {
  std::vector<std::string> names;
  for (const Logger* logger = g_loggers.load(std::memory_order_acquire); logger != nullptr;
       logger = logger->next_) {
    names.push_back(logger->name_);
  }
  std::sort(names.begin(), names.end());
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
  // The previous sink writes nothing any more once it is handed back.
  const std::lock_guard<std::mutex> lock(g_outlet.Get().mutex);
  return g_sink.exchange(sink);
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
  } catch (...) {
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

#include <algorithm>
#include <cstdarg>
#include <map>
#include <mutex>

#include "krand/core/krand_core.h"
#include "tevra/core/logger.h"

namespace {

using tevra::core::Logger;

// Contexts in use: the loggers themselves, with the number of times each was given out. A logger
// lives as long as the process, so a late line through a context given back does no harm.
struct Contexts {
  std::mutex mutex;
  std::map<void*, unsigned> uses;
};

Contexts& TheContexts() {
  static Contexts* const contexts = new Contexts;
  return *contexts;
}

Logger* LoggerOf(void* context) {
  static Logger* const fallback = Logger::GetLogger("krand");
  return context == nullptr ? fallback : static_cast<Logger*>(context);
}

Logger::Level LevelOf(krand_core_log_priority priority) {
  return static_cast<Logger::Level>(std::clamp(static_cast<int>(priority),
                                               static_cast<int>(KRAND_CORE_LOG_ERROR),
                                               static_cast<int>(KRAND_CORE_LOG_DEBUG)));
}

}  // namespace

krand_core_status krand_core_logging_init(const char* identity, void** context) {
  krand_core_trace("krand_core_logging_init");
  if (identity == nullptr || *identity == '\0' || context == nullptr) {
    return KRAND_CORE_INVALID_ARGUMENT;
  }
  try {
    Logger* const logger = Logger::GetLogger(identity);
    const std::lock_guard<std::mutex> lock(TheContexts().mutex);
    ++TheContexts().uses[logger];
    *context = logger;
    return KRAND_CORE_OK;
  } catch (const std::exception&) {
    return KRAND_CORE_NO_MEMORY;
  }
}

krand_core_status krand_core_logging_deinit(void* context) {
  krand_core_trace("krand_core_logging_deinit");
  const std::lock_guard<std::mutex> lock(TheContexts().mutex);
  const auto found = TheContexts().uses.find(context);
  if (found == TheContexts().uses.end()) {
    return KRAND_CORE_INVALID_ARGUMENT;
  }
  if (--found->second == 0) {
    TheContexts().uses.erase(found);
  }
  return KRAND_CORE_OK;
}

void krand_core_logging_log(void* context, krand_core_log_priority priority, const char* format,
                            ...) {
  va_list arguments;
  va_start(arguments, format);
  krand_core_logging_logv(context, priority, format, arguments);
  va_end(arguments);
}

void krand_core_logging_logv(void* context, krand_core_log_priority priority, const char* format,
                             va_list arguments) {
  if (format != nullptr) {
    LoggerOf(context)->LogV(LevelOf(priority), format, arguments);
  }
}

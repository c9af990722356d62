#ifndef TEVRA_CORE_LOGGER_H_
#define TEVRA_CORE_LOGGER_H_

#include <string>
#include <vector>

namespace tevra::core {

class PlatformConfig;

// One named source of log lines. GetLogger hands out one object per name, alive until the process
// ends. Any thread may log. A line below the level in force costs one atomic load: nothing is
// formatted. Texts are printf formats; user text is always an argument, never the format. Logging
// never throws, waits for no reader, and goes on in a child of fork, whatever other threads of the
// parent were logging.
//
// Without a sink of someone's own, lines go to the journal when standard error is connected to it,
// else to standard error as "notice UserMap: text". There, every byte that is neither printable nor
// part of UTF-8 text, and the backslash, is written as \x0a: no one forges a line.
class Logger {
 public:
  // Numbers are syslog's: the smaller, the more urgent.
  enum Level { kError = 3, kWarning = 4, kNotice = 5, kInformation = 6, kDebug = 7 };

  // Where lines go. Write may be called from any thread, one call at a time, and must not wait for
  // anyone: every thread that logs waits for it.
  class Sink {
   public:
    virtual ~Sink() = default;
    virtual void Write(Level level, const std::string& logger, const std::string& text) = 0;
  };

  static Logger* GetLogger(const std::string& name);
  // Every name that someone has asked for, in order.
  static std::vector<std::string> Names();

  // Level in force for every logger. Until SetLevel it is TEVRA_LOG_LEVEL's, else [Logging]
  // level's, else Notice. Names (error, warning, notice, information, debug) and numbers 3 to 7 are
  // levels; a configuration that cannot be used means Notice and one Warning line.
  static void SetLevel(Level level);
  static Level GetLevel();
  // Takes SetLevel back.
  static void UseConfiguredLevel();
  static bool IsEnabled(Level level);
  // Replaces the sink (borrowed; null restores the journal or stderr) and returns the previous one.
  static Sink* SetSink(Sink* sink);

  void Debug(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void Information(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void Notice(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void Warning(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void Error(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // The same for a level decided at run time and arguments already collected.
  void LogV(Level level, const char* format, __builtin_va_list arguments)
      __attribute__((format(printf, 3, 0)));

  const std::string& Name() const { return name_; }

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

 private:
  friend class PlatformConfig;

  explicit Logger(const std::string& name) : name_(name) {}
  // The configuration has changed: the next use takes the level from it, unless SetLevel was
  // called.
  static void ForgetConfiguredLevel();

  const std::string name_;
  Logger* next_ = nullptr;  // in the list of all loggers; constant once it is in
};

}  // namespace tevra::core

#endif  // TEVRA_CORE_LOGGER_H_

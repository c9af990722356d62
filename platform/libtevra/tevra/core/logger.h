#ifndef TEVRA_CORE_LOGGER_H_
#define TEVRA_CORE_LOGGER_H_

#include <atomic>
#include <string>

namespace tevra::core {

// One named source of log lines. GetLogger hands out one object per name, alive until the process
// ends. Any thread may log. A line below the level in force costs one atomic load: nothing is
// formatted. Texts are printf formats; user text is always an argument, never the format.
class Logger {
 public:
  // Numbers are syslog's: the smaller, the more urgent.
  enum Level { kError = 3, kWarning = 4, kNotice = 5, kInformation = 6, kDebug = 7 };

  // Where lines go. Write may be called from any thread, one call at a time.
  class Sink {
   public:
    virtual ~Sink() = default;
    virtual void Write(Level level, const std::string& logger, const std::string& text) = 0;
  };

  static Logger* GetLogger(const std::string& name);

  // Level in force for every logger; the first use takes it from the configuration, default Notice.
  static void SetLevel(Level level);
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
  explicit Logger(const std::string& name) : name_(name) {}

  const std::string name_;
};

}  // namespace tevra::core

#endif  // TEVRA_CORE_LOGGER_H_

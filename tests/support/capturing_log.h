#ifndef SUPPORT_CAPTURING_LOG_H_
#define SUPPORT_CAPTURING_LOG_H_

#include <mutex>
#include <string>
#include <vector>

#include "tevra/core/logger.h"

namespace support {

struct LogLine {
  tevra::core::Logger::Level level;
  std::string logger;
  std::string text;

  bool operator==(const LogLine&) const = default;
};

// Collects every log line of the process, Debug included, for as long as it lives; sink and level
// are restored afterwards. Any thread may log; one capture at a time, or nested in scopes.
class CapturingLog final : public tevra::core::Logger::Sink {
 public:
  using Level = tevra::core::Logger::Level;

  CapturingLog()
      : previous_level_(tevra::core::Logger::GetLevel()),
        previous_sink_(tevra::core::Logger::SetSink(this)) {
    tevra::core::Logger::SetLevel(tevra::core::Logger::kDebug);
  }
  ~CapturingLog() override {
    tevra::core::Logger::SetLevel(previous_level_);
    tevra::core::Logger::SetSink(previous_sink_);
  }
  CapturingLog(const CapturingLog&) = delete;
  CapturingLog& operator=(const CapturingLog&) = delete;

  void Write(Level level, const std::string& logger, const std::string& text) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back({level, logger, text});
  }

  std::vector<LogLine> Lines() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  // The texts of one logger, in order.
  std::vector<std::string> TextsOf(const std::string& logger) const {
    std::vector<std::string> texts;
    for (const LogLine& line : Lines()) {
      if (line.logger == logger) texts.push_back(line.text);
    }
    return texts;
  }
  // The texts of one logger at one level, in order.
  std::vector<std::string> TextsOf(const std::string& logger, Level level) const {
    std::vector<std::string> texts;
    for (const LogLine& line : Lines()) {
      if (line.logger == logger && line.level == level) texts.push_back(line.text);
    }
    return texts;
  }
  // Whether any line has `part` in its text.
  bool Contains(const std::string& part) const {
    for (const LogLine& line : Lines()) {
      if (line.text.find(part) != std::string::npos) return true;
    }
    return false;
  }
  void Clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  const Level previous_level_;
  tevra::core::Logger::Sink* const previous_sink_;
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
};

}  // namespace support

#endif  // SUPPORT_CAPTURING_LOG_H_

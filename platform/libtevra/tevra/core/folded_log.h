#ifndef TEVRA_CORE_FOLDED_LOG_H_
#define TEVRA_CORE_FOLDED_LOG_H_

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "tevra/core/logger.h"

namespace tevra::core {

// Lines that strangers can provoke as fast as they like. The first of a user and a cause is written
// at once; what follows is counted, and written as one line with its count a minute later at the
// earliest. Bounded: past many users at once the rest is counted together. Not synchronised.
class FoldedLog final {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  explicit FoldedLog(Logger* logger, Clock clock = std::chrono::steady_clock::now)
      : logger_(logger), clock_(std::move(clock)) {}

  void Write(Logger::Level level, uid_t user, const std::string& cause, const std::string& text);

 private:
  using Key = std::pair<uid_t, std::string>;
  struct Entry {
    std::chrono::steady_clock::time_point written;
    uint64_t folded = 0;
    Logger::Level level;
    std::string text;  // of the last one
  };

  void WriteLine(Logger::Level level, const std::string& text);
  void WriteFolded();

  Logger* const logger_;
  const Clock clock_;
  std::map<Key, Entry> entries_;
};

}  // namespace tevra::core

#endif  // TEVRA_CORE_FOLDED_LOG_H_

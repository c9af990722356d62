#ifndef TEVRA_CORE_DEFAULT_SINK_H_
#define TEVRA_CORE_DEFAULT_SINK_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "tevra/core/logger.h"
#include "tevra/core/standard_error.h"

namespace tevra::core {

// Where lines go when no one has put a sink of their own: the journal, with fields, when the
// service manager has connected standard error to it; else standard error, one line each. A line
// that the journal does not take goes to standard error.
//
// Never waits for a reader: a line for which there is no room, or no one to read it, is dropped and
// counted. As soon as a line can be written again, "12 lines lost" stands before it.
class DefaultSink final : public Logger::Sink {
 public:
  void Write(Logger::Level level, const std::string& logger, const std::string& text) override;

  // The text with every byte that is neither printable nor part of UTF-8 text, and the backslash,
  // as "\x" and two digits.
  static std::string Escape(std::string_view text);
  // True when `stream` ("device:inode", as the service manager passes it) names what `fd` is.
  static bool IsJournalStream(const char* stream, int fd);
  // "notice", for instance.
  static const char* LevelName(Logger::Level level);

 private:
  // False when the line was lost.
  bool Deliver(Logger::Level level, const std::string& logger, const std::string& text);

  StandardError standard_error_;
  uint64_t lost_ = 0;  // lines since the last one that was taken
};

}  // namespace tevra::core

#endif  // TEVRA_CORE_DEFAULT_SINK_H_

#include "tevra/core/default_sink.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>

#include "tevra/core/hexadecimal.h"
#include "tevra/core/platform_config.h"
#include "tevra/core/utf8.h"
#include "tevra/osa/descriptor.h"

namespace tevra::core {
namespace {

const ConfigKey kIdentifier{"Logging", "identifier", "vigila"};

// Bytes of the printable character at the start of `text`; 0 when there is none, as for control
// bytes, the C1 controls that terminals obey (U+0080 to U+009F) and what is not UTF-8.
size_t PrintableLength(std::string_view text) {
  const size_t length = Utf8SequenceLength(text);
  if (length == 0) return 0;
  const uint32_t code = Utf8CodePoint(text.substr(0, length));
  const bool control = code < 0x20 || (code >= 0x7f && code < 0xa0);
  // Some readers of a log begin a new line at U+2028 and U+2029.
  const bool separator = code == 0x2028 || code == 0x2029;
  return control || separator || code == '\\' ? 0 : length;
}

std::string Identifier() {
  try {
    return PlatformConfig::Get().GetString(kIdentifier);
  } catch (const std::exception&) {
    return kIdentifier.fallback();
  }
}

// Deliberate: not by sd_journal_sendv, which waits for as long as the journal does not read, and
// which reports success when there is no journal. No field holds a line's end: they are escaped.
bool WriteToJournal(Logger::Level level, const std::string& logger, const std::string& text) {
  static constexpr sockaddr_un kJournal = {AF_UNIX, "/run/systemd/journal/socket"};
  const std::string fields = "PRIORITY=" + std::to_string(static_cast<int>(level)) +
                             "\nMESSAGE=" + text +
                             "\nSYSLOG_IDENTIFIER=" + DefaultSink::Escape(Identifier()) +
                             "\nVIGILA_LOGGER=" + logger + "\n";
  const osa::Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return sendto(socket.get(), fields.data(), fields.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                reinterpret_cast<const sockaddr*>(&kJournal), sizeof kJournal) >= 0;
}

}  // namespace

const char* DefaultSink::LevelName(Logger::Level level) {
  switch (level) {
    case Logger::kError:
      return "error";
    case Logger::kWarning:
      return "warning";
    case Logger::kNotice:
      return "notice";
    case Logger::kInformation:
      return "information";
    case Logger::kDebug:
      return "debug";
  }
  return "level";
}

std::string DefaultSink::Escape(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  while (!text.empty()) {
    const size_t printable = PrintableLength(text);
    if (printable > 0) {
      escaped.append(text.substr(0, printable));
      text.remove_prefix(printable);
      continue;
    }
    escaped.append("\\x");
    AppendHexadecimal(text.front(), escaped);
    text.remove_prefix(1);
  }
  return escaped;
}

bool DefaultSink::IsJournalStream(const char* stream, int fd) {
  if (stream == nullptr) return false;
  char* end = nullptr;
  const unsigned long long device = strtoull(stream, &end, 10);
  if (end == stream || *end != ':') return false;
  const char* second = end + 1;
  const unsigned long long inode = strtoull(second, &end, 10);
  if (end == second || *end != '\0') return false;
  struct stat status;
  return fstat(fd, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

void DefaultSink::Write(Logger::Level level, const std::string& logger, const std::string& text) {
  if (lost_ > 0) {
    const std::string report = std::to_string(lost_) + (lost_ == 1 ? " line lost" : " lines lost");
    if (Deliver(Logger::kWarning, "Logger", report)) lost_ = 0;
  }
  // While earlier lines are missing without a word about them, none may follow.
  if (lost_ > 0 || !Deliver(level, Escape(logger), Escape(text))) ++lost_;
}

bool DefaultSink::Deliver(Logger::Level level, const std::string& logger, const std::string& text) {
  // Asked for each line: standard error may be given another target while the process runs.
  if (IsJournalStream(getenv("JOURNAL_STREAM"), STDERR_FILENO) &&
      WriteToJournal(level, logger, text)) {
    return true;
  }
  return standard_error_.Write(std::string(LevelName(level)) + " " + logger + ": " + text);
}

}  // namespace tevra::core

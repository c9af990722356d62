// The line of this file would stand in every journal entry and say nothing.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include "tevra/core/default_sink.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "tevra/core/platform_config.h"
#include "tevra/core/utf8.h"

namespace tevra::core {
namespace {

constexpr char kDefaultIdentifier[] = "vigila";
constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

// Bytes of the printable character at the start of `text`; 0 when there is none, as for control
// bytes, the C1 controls that terminals obey (U+0080 to U+009F) and what is not UTF-8.
size_t PrintableLength(std::string_view text) {
  const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
  const size_t length = Utf8SequenceLength(text);
  if (length == 1) return byte(0) >= 0x20 && byte(0) != 0x7f && byte(0) != '\\' ? 1 : 0;
  const bool control = length == 2 && byte(0) == 0xc2 && byte(1) < 0xa0;
  // U+2028 and U+2029 separate lines for some readers.
  const bool separator =
      length == 3 && byte(0) == 0xe2 && byte(1) == 0x80 && (byte(2) == 0xa8 || byte(2) == 0xa9);
  return control || separator ? 0 : length;
}

std::string Identifier() {
  try {
    return PlatformConfig::Get().GetString("Logging", "identifier", kDefaultIdentifier);
  } catch (const std::exception&) {
    return kDefaultIdentifier;
  }
}

bool WriteToJournal(Logger::Level level, const std::string& logger, const std::string& text) {
  // sd_journal_sendv reports success when there is no socket, and the line would be lost.
  if (access(kJournalSocket, W_OK) != 0) return false;
  std::string fields[] = {"PRIORITY=" + std::to_string(static_cast<int>(level)), "MESSAGE=" + text,
                          "SYSLOG_IDENTIFIER=" + DefaultSink::Escape(Identifier()),
                          "VIGILA_LOGGER=" + logger};
  iovec parts[std::size(fields)];
  for (size_t i = 0; i < std::size(fields); ++i) parts[i] = {fields[i].data(), fields[i].size()};
  return sd_journal_sendv(parts, static_cast<int>(std::size(parts))) == 0;
}

void WriteToStandardError(const std::string& line) {
  // One write: lines of several processes that share the stream do not mix.
  size_t done = 0;
  while (done < line.size()) {
    const ssize_t written = write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    done += static_cast<size_t>(written);
  }
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
  static constexpr char kHex[] = "0123456789abcdef";
  std::string escaped;
  escaped.reserve(text.size());
  while (!text.empty()) {
    const size_t printable = PrintableLength(text);
    if (printable > 0) {
      escaped.append(text.substr(0, printable));
      text.remove_prefix(printable);
      continue;
    }
    const unsigned char byte = static_cast<unsigned char>(text.front());
    escaped.append({'\\', 'x', kHex[byte >> 4], kHex[byte & 15]});
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
  const std::string safe_logger = Escape(logger);
  const std::string safe_text = Escape(text);
  // Asked for each line: standard error may be given another target while the process runs.
  if (IsJournalStream(getenv("JOURNAL_STREAM"), STDERR_FILENO) &&
      WriteToJournal(level, safe_logger, safe_text)) {
    return;
  }
  WriteToStandardError(std::string(LevelName(level)) + " " + safe_logger + ": " + safe_text + "\n");
}

}  // namespace tevra::core

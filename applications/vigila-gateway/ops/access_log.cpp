#include "vigila-gateway/ops/access_log.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "vigila-gateway/ops/json_text.h"

namespace vigila::gateway {
namespace {

std::string TimeText(std::chrono::system_clock::time_point time) {
  const auto since = std::chrono::floor<std::chrono::milliseconds>(time).time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
  const std::time_t whole = seconds.count();
  std::tm utc = {};
  gmtime_r(&whole, &utc);
  char text[32];
  const size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof(text) - length, ".%03dZ",
                static_cast<int>((since - seconds).count()));
  return text;
}

}  // namespace

std::string AccessLine(const AccessRecord& record) {
  std::string line = "{\"time\":\"" + TimeText(record.time) + "\"";
  line += ",\"source\":" + JsonText(record.source);
  line += ",\"handler\":" + JsonText(record.handler);
  line += ",\"method\":" + JsonText(record.method);
  line += ",\"path\":" + JsonText(record.path);
  if (!record.user.empty()) line += ",\"user\":" + JsonText(record.user);
  line += ",\"status\":" + std::to_string(record.status);
  line += ",\"bytes\":" + std::to_string(record.bytes);
  line += ",\"duration_us\":" + std::to_string(record.duration.count());
  return line + "}\n";
}

void WriteAccessLine(int fd, const AccessRecord& record) {
  const std::string line = AccessLine(record);
  // A log that cannot be written must not stop the service.
  [[maybe_unused]] const ssize_t written = write(fd, line.data(), line.size());
}

}  // namespace vigila::gateway

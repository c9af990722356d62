#ifndef VIGILA_GATEWAY_OPS_ACCESS_LOG_H_
#define VIGILA_GATEWAY_OPS_ACCESS_LOG_H_

#include <chrono>
#include <cstddef>
#include <string>

namespace vigila::gateway {

struct AccessRecord {
  std::chrono::system_clock::time_point time;
  std::string source;
  std::string method;
  std::string path;     // canonical; queries may hold secrets and are never written
  std::string handler;  // "site", "auth", "service", "health"
  std::string user;     // when the request logged on
  int status = 0;
  size_t bytes = 0;
  std::chrono::microseconds duration{0};
};

// One line of JSON, with its end of line. Holds no token and no credentials.
std::string AccessLine(const AccessRecord& record);

// Writes the line to the descriptor in one piece, so that lines of several threads do not mix.
void WriteAccessLine(int fd, const AccessRecord& record);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_OPS_ACCESS_LOG_H_

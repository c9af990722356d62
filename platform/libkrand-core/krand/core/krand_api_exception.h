#ifndef KRAND_CORE_KRAND_API_EXCEPTION_H_
#define KRAND_CORE_KRAND_API_EXCEPTION_H_

#include <stdexcept>
#include <string>
#include <vector>

#include "krand/core/krand_core.h"

namespace krand::core {

// The name of a status, "KRAND_CORE_IO_ERROR" for instance; "KRAND_CORE_STATUS_n" for others.
std::string statusToString(krand_core_status status);

// Fills `ids` with the identifiers of the targets that serve `service` and tells whether there are
// any.
bool getTargetIds(const std::string& service, std::vector<std::string>& ids);

// A platform call that returned another status than KRAND_CORE_OK.
class KrandApiException : public std::runtime_error {
 public:
  KrandApiException(const std::string& text, krand_core_status status)
      : std::runtime_error(formatMessage(text, status)), status_(status) {}

  krand_core_status status() const { return status_; }
  // The text, then the status name in brackets: "text (KRAND_CORE_ERROR)".
  static std::string formatMessage(const std::string& text, krand_core_status status);

 private:
  krand_core_status status_;
};

}  // namespace krand::core

#endif  // KRAND_CORE_KRAND_API_EXCEPTION_H_

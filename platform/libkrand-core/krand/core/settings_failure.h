#ifndef KRAND_CORE_SETTINGS_FAILURE_H_
#define KRAND_CORE_SETTINGS_FAILURE_H_

#include <stdexcept>
#include <string>

#include "krand/core/krand_core.h"

namespace krand::core {

// What the settings classes throw; the C functions turn it into its status and an Error log line.
class SettingsFailure : public std::runtime_error {
 public:
  explicit SettingsFailure(const std::string& text, krand_core_status status = KRAND_CORE_IO_ERROR)
      : std::runtime_error(text), status_(status) {}

  krand_core_status status() const { return status_; }

 private:
  krand_core_status status_;
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_FAILURE_H_

#include "krand/core/krand_api_exception.h"

#include "tevra/core/platform_config.h"

namespace krand::core {
namespace {

const tevra::core::ConfigKey kPresent{"DeviceInformation", "present", "true"};

}  // namespace

std::string statusToString(krand_core_status status) {
  static constexpr const char* kNames[] = {
      "KRAND_CORE_OK",
      "KRAND_CORE_ERROR",
      "KRAND_CORE_INVALID_ARGUMENT",
      "KRAND_CORE_NOT_INITIALIZED",
      "KRAND_CORE_NO_MEMORY",
      "KRAND_CORE_IO_ERROR",
      "KRAND_CORE_WRONG_TYPE",
      "KRAND_CORE_UNAVAILABLE",
  };
  const int number = static_cast<int>(status);
  if (number >= 0 && number < static_cast<int>(std::size(kNames))) {
    return kNames[number];
  }
  return "KRAND_CORE_STATUS_" + std::to_string(number);
}

bool getTargetIds(const std::string& service, std::vector<std::string>& ids) {
  ids.clear();
  if (service == "device_information" && tevra::core::PlatformConfig::Get().GetBool(kPresent)) {
    ids.push_back("device_information.0");
  }
  return !ids.empty();
}

std::string KrandApiException::formatMessage(const std::string& text, krand_core_status status) {
  return text + " (" + statusToString(status) + ")";
}

}  // namespace krand::core

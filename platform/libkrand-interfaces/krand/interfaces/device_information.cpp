#include "krand/interfaces/device_information.h"

#include <algorithm>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "krand/core/handle_table.h"
#include "krand/core/krand_api_exception.h"
#include "tevra/core/logger.h"
#include "tevra/core/platform_config.h"
#include "tevra/core/string_util.h"
#include "tevra/core/trimmed.h"

namespace {

const tevra::core::ConfigKey kFeatures{"DeviceInformation", "features", ""};

constexpr const char* kService = "device_information";

krand::core::HandleTable& Handles() {
  static krand::core::HandleTable* const table = new krand::core::HandleTable;
  return *table;
}

bool IsTarget(const std::string& target) {
  std::vector<std::string> ids;
  return krand::core::getTargetIds(kService, ids) &&
         std::find(ids.begin(), ids.end(), target) != ids.end();
}

bool IsListed(std::string_view feature) {
  const std::string list = tevra::core::PlatformConfig::Get().GetString(kFeatures);
  const std::vector<std::string> features = tevra::core::StringUtil::Split(list, ',');
  return std::any_of(features.begin(), features.end(), [feature](const std::string& listed) {
    return !feature.empty() && tevra::core::Trimmed(listed) == feature;
  });
}

// A configuration that cannot be read is an error status and a line that names what is wrong.
template <typename Body>
krand_core_status Guarded(Body body) {
  try {
    return body();
  } catch (const std::exception& error) {
    tevra::core::Logger::GetLogger("krand")->Error("Device information: %s", error.what());
    return KRAND_CORE_ERROR;
  }
}

}  // namespace

krand_core_status krand_api_device_information_initiator_init(void* reserved, void* context,
                                                              krand_core_ipc_handle* handle,
                                                              int flags, void* options) {
  static_cast<void>(context);
  krand_core_trace("krand_api_device_information_initiator_init");
  if (reserved != nullptr || handle == nullptr || flags != 0 || options != nullptr) {
    return KRAND_CORE_INVALID_ARGUMENT;
  }
  return Guarded([handle] {
    std::vector<std::string> ids;
    if (!krand::core::getTargetIds(kService, ids)) {
      return KRAND_CORE_UNAVAILABLE;
    }
    *handle = Handles().Add();
    return KRAND_CORE_OK;
  });
}

krand_core_status krand_api_device_information_initiator_deinit(krand_core_ipc_handle handle) {
  krand_core_trace("krand_api_device_information_initiator_deinit");
  return Handles().Remove(handle) ? KRAND_CORE_OK : KRAND_CORE_INVALID_ARGUMENT;
}

krand_core_status krand_api_device_information_is_feature_supported_send(
    krand_core_ipc_handle handle, const char* target, const char* feature, int* supported) {
  if (target == nullptr || feature == nullptr || supported == nullptr ||
      !Handles().Contains(handle)) {
    return KRAND_CORE_INVALID_ARGUMENT;
  }
  return Guarded([&] {
    if (!IsTarget(target)) {
      return KRAND_CORE_UNAVAILABLE;
    }
    *supported = IsListed(feature) ? 1 : 0;
    return KRAND_CORE_OK;
  });
}

#include "vigila/server/device_information.h"

#include <sys/stat.h>

#include "krand/core/krand_api_exception.h"
#include "krand/interfaces/device_information.h"
#include "tevra/osa/exception.h"

namespace krand::vigila {
namespace {

constexpr const char* kService = "device_information";
constexpr const char* kSB327 = "SB327";

void ThrowUnlessOk(krand_core_status status, const char* call) {
  if (status != KRAND_CORE_OK) {
    throw core::KrandApiException(std::string("Failed krand api call: ") + call, status);
  }
}

}  // namespace

DeviceInformation::DeviceInformation(void* log_context, const std::string& marker_path)
    : log_context_(log_context), marker_path_(marker_path) {
  if (!core::getTargetIds(kService, target_ids_)) {
    krand_core_logging_log(log_context_, KRAND_CORE_LOG_ERROR, "%s",
                           "No service to configure device information");
    return;
  }
  try {
    ThrowUnlessOk(krand_api_device_information_initiator_init(nullptr, log_context_, &ipc_handle_,
                                                              0, nullptr),
                  "krand_api_device_information_initiator_init( NULL, _logCookie, &_ipcCookie, 0, "
                  "NULL)");
  } catch (const core::KrandApiException& e) {
    krand_core_logging_log(log_context_, KRAND_CORE_LOG_ERROR,
                           "DeviceInformation: Initialize services exception: %s", e.what());
    throw tevra::osa::Exception("%s", e.what());
  }
}

DeviceInformation::~DeviceInformation() {
  // Deliberate: also when nothing was opened; the platform refuses a handle it never gave out.
  krand_api_device_information_initiator_deinit(ipc_handle_);
}

bool DeviceInformation::isSB327supported() const {
  if (target_ids_.empty()) {
    // Deliberate: two blanks, here and below; log filters match these lines.
    krand_core_logging_log(log_context_, KRAND_CORE_LOG_ERROR, "%s",
                           "DeviceInformation:  Could not get support in Vigila");
    throw tevra::osa::Exception("DeviceInformation: Service Not Available.");
  }
  int supported = 0;
  try {
    ThrowUnlessOk(krand_api_device_information_is_feature_supported_send(
                      ipc_handle_, target_ids_[0].c_str(), kSB327, &supported),
                  "krand_api_device_information_is_feature_supported_send( _ipcCookie, "
                  "_targetIds[0].c_str(), kSB327, &retval)");
  } catch (const core::KrandApiException& e) {
    krand_core_logging_log(log_context_, KRAND_CORE_LOG_ERROR,
                           "DeviceInformation:  Get Feature Supported returned exception: %s",
                           e.what());
    throw tevra::osa::Exception("%s", e.what());
  }
  if (supported == 0) return false;

  struct stat marker;
  // Deliberate: a marker that cannot be examined counts as absent.
  return stat(marker_path_.c_str(), &marker) != 0;
}

}  // namespace krand::vigila

#ifndef VIGILA_SERVER_DEVICE_INFORMATION_H_
#define VIGILA_SERVER_DEVICE_INFORMATION_H_

#include <string>
#include <vector>

#include "krand/core/krand_core.h"

namespace krand::vigila {

// A short-lived client of the device-information service. A missing service is tolerated until a
// question is asked; every failure of the platform becomes a tevra::osa::Exception after a log
// line.
class DeviceInformation {
 public:
  // While anything exists there, the device does not have unique passwords, whatever it reports.
  static constexpr const char* kMarkerPath = "/mnt/unused/brick";

  // `log_context` is the platform's logging context and must outlive the client.
  explicit DeviceInformation(void* log_context, const std::string& marker_path = kMarkerPath);
  virtual ~DeviceInformation();
  DeviceInformation(const DeviceInformation&) = delete;
  DeviceInformation& operator=(const DeviceInformation&) = delete;

  // Whether the device demands unique passwords.
  bool isSB327supported() const;

 private:
  void* const log_context_;
  krand_core_ipc_handle ipc_handle_ = 0;
  std::vector<std::string> target_ids_;
  const std::string marker_path_;
};

}  // namespace krand::vigila

#endif  // VIGILA_SERVER_DEVICE_INFORMATION_H_

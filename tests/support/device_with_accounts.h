#ifndef SUPPORT_DEVICE_WITH_ACCOUNTS_H_
#define SUPPORT_DEVICE_WITH_ACCOUNTS_H_

#include <string>

#include "support/daemon_process.h"

namespace support {

// A device with an administrator "admin" (password "admin's secret") and a viewer "view"
// ("view's secret").
class DeviceWithAccounts {
 public:
  bool Start() {
    return device.LaunchAndAwaitReady() == DaemonProcess::Start::kReady && Add("admin", "admins") &&
           Add("view", "viewers");
  }
  // One more account, whose password is made of its name like the others'.
  bool Add(const std::string& name, const std::string& group) const {
    return device.CtlWithSecret(PasswordOf(name), {"user", "add", name, "-g", group}).exit_code ==
           0;
  }
  static std::string PasswordOf(const std::string& name) { return name + "'s secret"; }

  DaemonProcess device;
};

}  // namespace support

#endif  // SUPPORT_DEVICE_WITH_ACCOUNTS_H_

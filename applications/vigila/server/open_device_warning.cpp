#include "vigila/server/open_device_warning.h"

#include "tevra/core/logger.h"
#include "tevra/osa/exception.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {
namespace {

// By the settings' mark, which costs nothing: the accounts need not be loaded for it.
void WarnIfOpen() {
  try {
    if (UserSettings::HadAdministrator()) return;
  } catch (const tevra::osa::Exception&) {
    return;  // logged, and a store that cannot be read is not open
  }
  tevra::core::Logger::GetLogger("VigilaServer")
      ->Warning(
          "There is no administrator: every token counts as authenticated until one is added "
          "(vigilactl user add NAME -g admins)");
}

}  // namespace

OpenDeviceWarning::OpenDeviceWarning(tevra::msgbus::IMsgBus& bus)
    : timer_(bus, kInterval, &WarnIfOpen) {
  WarnIfOpen();
}

}  // namespace vigila::server

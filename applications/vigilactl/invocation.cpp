#include "vigilactl/invocation.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include "tevra/core/logger.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/access_denied.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/service_address.h"
#include "vigilactl/text_table.h"
#include "vigilactl/token_argument.h"

namespace vigilactl {
namespace {

// The libraries' log lines are for daemons; here only what someone must act on is of interest.
void QuietenLibraries() {
  if (getenv("TEVRA_LOG_LEVEL") == nullptr) {
    tevra::core::Logger::SetLevel(tevra::core::Logger::kError);
  }
}

}  // namespace

Invocation::~Invocation() = default;

void Invocation::Configure() const {
  try {
    if (config_file.empty()) {
      tevra::core::PlatformConfig::Get();
    } else {
      tevra::core::PlatformConfig::LoadFrom(config_file);
    }
  } catch (const std::exception& error) {
    throw UsageError(error.what());
  }
  QuietenLibraries();
}

ExitCode Invocation::Run() {
  try {
    Configure();
    const ExitCode code = verb_();
    out_.flush();
    if (!out_) return Fail(kUnreachable, "the answer cannot be written");
    return code;
  } catch (const UsageError& error) {
    return Fail(kUsage, error.what());
  } catch (const tevra::interfaces::AccessDenied& error) {
    const char* whose = on_behalf_ ? " (the session in VIGILA_TOKEN was judged)" : "";
    return Fail(kNotPermitted, std::string("not permitted: ") + error.what() + whose);
  } catch (const std::exception& error) {
    const std::string why = WhyUnreachable(ServiceAddress::Configured());
    return Fail(kUnreachable, why.empty() ? error.what() : why);
  }
}

tevra::interfaces::ISecurityProvider& Invocation::Provider() {
  if (!provider_) {
    provider_.reset(tevra::interfaces::ISecurityProvider::CreateOneShotClient(&Bus()));
  }
  return *provider_;
}

tevra::interfaces::IAdministration& Invocation::Administration() {
  if (!administration_) {
    administration_.reset(tevra::interfaces::IAdministration::CreateClient(&Bus()));
  }
  return *administration_;
}

std::string Invocation::OnBehalfOf() {
  const std::string token = EnvironmentToken();
  on_behalf_ = !token.empty();
  return token;
}

tevra::msgbus::MsgBus& Invocation::Bus() {
  if (!bus_) bus_ = std::make_unique<tevra::msgbus::MsgBus>();
  return *bus_;
}

size_t Invocation::Width() const {
  winsize size = {};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : TextTable::kAnyWidth;
}

KrandApiPermissionInitiator& Invocation::Permissions() {
  if (!permissions_) permissions_ = std::make_unique<KrandApiPermissionInitiator>("permission");
  return *permissions_;
}

ExitCode Invocation::Answer(const Json& object, const std::string& text) {
  if (json) {
    PrintJson(object);
  } else {
    out_ << text;
  }
  return kDone;
}

ExitCode Invocation::Refuse(Json object, const std::string& sentence) {
  if (json) {
    object["Message"] = sentence;
    PrintJson(object);
  } else {
    err_ << "vigilactl: " << Printable(sentence) << '\n';
  }
  return kRefused;
}

ExitCode Invocation::Fail(ExitCode code, const std::string& sentence) {
  if (json) {
    Json object = {{"Exit", static_cast<int>(code)}, {"Message", sentence}};
    PrintJson(object);
  } else {
    err_ << "vigilactl: " << Printable(sentence) << '\n';
  }
  return code;
}

void Invocation::Note(const std::string& sentence) {
  if (!json) err_ << "vigilactl: note: " << Printable(sentence) << '\n';
}

void Invocation::Show(const std::string& text) {
  if (!json) out_ << text << std::flush;
}

void Invocation::Ask(const std::string& question) {
  err_ << question << std::flush;
}

void Invocation::PrintJson(const Json& object) {
  out_ << object.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

}  // namespace vigilactl

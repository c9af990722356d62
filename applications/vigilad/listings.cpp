#include "vigilad/listings.h"

#include <array>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "krand/interfaces/permission_target.h"
#include "tevra/interfaces/i_administration.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/interface_xml.h"
#include "tevra/msgbus/served_interface.h"
#include "vigilad/known_keys.h"

namespace vigila::daemon {
namespace {

using tevra::msgbus::InterfaceXml;
using tevra::msgbus::ServedInterface;
using tevra::msgbus::ServedOperation;
using tevra::msgbus::ServedValue;

std::array<ServedInterface, 3> ServedInterfaces() {
  return {tevra::interfaces::ISecurityProvider::Description(),
          tevra::interfaces::IAdministration::Description(),
          KrandApiPermissionTargetRun::Description()};
}

// " s token s path"
std::string Text(const std::vector<ServedValue>& values) {
  std::string text;
  for (const ServedValue& value : values) text += std::string(" ") + value.type + " " + value.name;
  return text;
}

void Print(const std::set<std::string>& lines) {
  for (const std::string& line : lines) std::puts(line.c_str());
}

}  // namespace

void ListKeys() {
  std::set<std::string> lines;
  for (const KnownKey& key : KnownKeys()) {
    lines.insert("[" + key.section + "] " + key.name + " = " + key.fallback);
  }
  Print(lines);
}

void ListOperations() {
  std::set<std::string> lines;
  for (const ServedInterface& served : ServedInterfaces()) {
    for (const ServedOperation& operation : served.operations) {
      lines.insert(operation.role + " " + served.name + " " + operation.member +
                   Text(operation.arguments) + " ->" + Text(operation.results));
    }
  }
  Print(lines);
}

bool PrintInterface(const std::string& name) {
  for (const ServedInterface& served : ServedInterfaces()) {
    if (served.name != name) continue;
    std::fputs(InterfaceXml::Document(InterfaceXml::Of(served)).c_str(), stdout);
    return true;
  }
  return false;
}

}  // namespace vigila::daemon

#include "vigilad/listings.h"

#include <cstdio>
#include <set>
#include <string>

#include "krand/interfaces/permission_target.h"
#include "tevra/core/config_key.h"
#include "tevra/interfaces/i_administration.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/served_operation.h"

namespace vigila::daemon {
namespace {

using tevra::core::ConfigKey;
using tevra::msgbus::ServedOperation;

void Print(const std::set<std::string>& lines) {
  for (const std::string& line : lines) std::puts(line.c_str());
}

}  // namespace

void ListKeys() {
  std::set<std::string> lines;
  for (const ConfigKey* key : ConfigKey::All()) {
    lines.insert(std::string("[") + key->section() + "] " + key->name() + " = " + key->fallback());
  }
  Print(lines);
}

void ListOperations() {
  std::set<std::string> lines;
  for (const auto& operations : {tevra::interfaces::ISecurityProvider::ServedOperations(),
                                 tevra::interfaces::IAdministration::ServedOperations(),
                                 KrandApiPermissionTargetRun::Operations()}) {
    for (const ServedOperation& operation : operations) {
      lines.insert(operation.role + " " + operation.interface + " " + operation.member);
    }
  }
  Print(lines);
}

}  // namespace vigila::daemon

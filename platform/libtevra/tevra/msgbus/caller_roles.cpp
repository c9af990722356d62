#include "tevra/msgbus/caller_roles.h"

#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <vector>

#include "tevra/core/platform_config.h"
#include "tevra/core/string_util.h"
#include "tevra/core/trimmed.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

// By role.
const core::ConfigKey kKeys[] = {{"Access", "service_groups", ""}, {"Access", "admin_groups", ""}};

gid_t LookUp(const std::string& name, const char* key) {
  std::vector<char> buffer(1024);
  group entry;
  group* found = nullptr;
  int error;
  while ((error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) ==
         ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (error != 0 || found == nullptr) {
    throw osa::Exception("[Access] %s: there is no group '%s'", key, name.c_str());
  }
  return entry.gr_gid;
}

gid_t ParseGroup(const std::string& text, const char* key) {
  if (!std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return LookUp(text, key);
  }
  gid_t gid = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), gid);
  // The largest value is the kernel's "no group".
  if (error != std::errc() || gid == static_cast<gid_t>(-1)) {
    throw osa::Exception("[Access] %s: there is no group '%s'", key, text.c_str());
  }
  return gid;
}

}  // namespace

CallerRoles::CallerRoles() {
  for (Role role : {kService, kAdmin}) {
    const std::string list = core::PlatformConfig::Get().GetString(kKeys[role]);
    for (const std::string& item : core::StringUtil::Split(list, ',')) {
      const std::string_view name = core::Trimmed(item);
      if (!name.empty()) groups_[role].push_back(ParseGroup(std::string(name), kKeys[role].name()));
    }
  }
}

bool CallerRoles::IsOwner(const Credentials& caller) const {
  return caller.uid == 0 || caller.uid == own_uid_;
}

bool CallerRoles::Holds(const Credentials& caller, Role role) const {
  if (IsOwner(caller)) return true;
  return std::any_of(caller.groups.begin(), caller.groups.end(), [&](gid_t group) {
    return std::find(groups_[role].begin(), groups_[role].end(), group) != groups_[role].end();
  });
}

const char* CallerRoles::RoleName(Role role) {
  return role == kService ? "service" : "admin";
}

std::string CallerRoles::Refusal(Role role, const std::string& operation) {
  return std::string("the caller does not hold the role '") + RoleName(role) + "' that " +
         operation + " needs";
}

}  // namespace tevra::msgbus

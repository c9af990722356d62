#include "vigilad/store_repair.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <optional>
#include <sstream>
#include <vector>

#include "json/elements.h"
#include "json/reader.h"
#include "krand/core/krand_core.h"
#include "krand/core/settings_repair.h"
#include "tevra/core/default_sink.h"
#include "tevra/core/json_utils.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/osa/exception.h"
#include "vigila/contract/groups.h"
#include "vigila/server/start_failure.h"
#include "vigila/server/store_lock.h"
#include "vigila/server/user_settings.h"

namespace vigila::daemon {
namespace {

using krand::core::SettingsRecord;
using krand::core::SettingsRepair;
using server::StoreLock;
using server::UserSettings;
using tevra::interfaces::ISecurityProvider;
using Source = SettingsRepair::Source;

constexpr const char* kDomain = "vigila";
constexpr size_t kColumns = 80;
constexpr size_t kLongestName = 48;

struct Account {
  std::string name;
  unsigned group;
};

// Lines of at most 80 columns; a word that is longer is broken.
void Print(const std::string& text, size_t indent) {
  const size_t width = kColumns - 1 - indent;
  std::string_view rest = text;
  do {
    size_t length = rest.size();
    if (length > width) {
      const size_t blank = rest.substr(0, width + 1).rfind(' ');
      length = blank == std::string_view::npos || blank == 0 ? width : blank;
    }
    std::printf("%*s%.*s\n", static_cast<int>(indent), "", static_cast<int>(length), rest.data());
    rest.remove_prefix(length);
    if (rest.starts_with(' ')) rest.remove_prefix(1);
  } while (!rest.empty());
}

std::string Printable(const std::string& text) {
  return tevra::core::DefaultSink::Escape(text);
}

std::string GroupName(unsigned group) {
  const char* const name = contract::GroupName(group);
  return name == nullptr ? std::to_string(group) : name;
}

// Nothing for a record that is no account.
std::optional<Account> AccountOf(const SettingsRecord& record) {
  if (!record.key.starts_with(UserSettings::kUserPrefix)) return std::nullopt;
  try {
    json::Object object;
    std::istringstream text(record.value);
    json::Reader::Read(object, text);
    return Account{record.key.substr(UserSettings::kUserPrefix.size()),
                   tevra::core::JsonUtils::AsUnsigned(json::Member(object, "Groups"))};
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

bool HasAdministrator(const SettingsRepair::Finding& finding) {
  return std::any_of(finding.intact.begin(), finding.intact.end(), [](const auto& record) {
    const std::optional<Account> account = AccountOf(record);
    return account && account->group == ISecurityProvider::kAdministrators &&
           account->name != contract::kNobodyName;
  });
}

// Of a sound store, what settings alone cannot know.
void JudgeAccounts(SettingsRepair::Finding& store) {
  if (store.damage.empty() && store.marked && !HasAdministrator(store)) {
    store.damage.push_back("it had an administrator and has none");
  }
}

void PrintAccounts(const SettingsRepair::Finding& finding) {
  for (const SettingsRecord& record : finding.intact) {
    const std::optional<Account> account = AccountOf(record);
    if (!account) continue;
    std::string name = Printable(account->name);
    if (name.size() > kLongestName) name = name.substr(0, kLongestName - 3) + "...";
    std::printf("    %-*s  %s\n", static_cast<int>(kLongestName), name.c_str(),
                GroupName(account->group).c_str());
  }
}

std::string TimeText(time_t time) {
  struct tm parts = {};
  char text[32];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", gmtime_r(&time, &parts));
  return text;
}

void PrintFinding(const char* title, const std::string& path,
                  const SettingsRepair::Finding& finding) {
  Print(std::string(title) + Printable(path), 0);
  if (finding.there) {
    Print("of " + TimeText(finding.written) + ", change " + std::to_string(finding.change), 2);
  }
  for (const std::string& damage : finding.damage) Print("damaged: " + Printable(damage), 2);
  if (!finding.there) return;
  Print(std::string(finding.damage.empty() ? "sound" : "sound in it") + ": " +
            std::to_string(finding.intact.size()) + " records, and these accounts among them:",
        2);
  PrintAccounts(finding);
}

bool CanBePutInForce(Source source, const SettingsRepair::Finding& finding) {
  return HasAdministrator(finding) && (source == Source::kStore || finding.damage.empty());
}

void PrintAdvice(const SettingsRepair& repair, const SettingsRepair::Finding& store,
                 const SettingsRepair::Finding& copy) {
  std::puts("");
  const bool records_serve = CanBePutInForce(Source::kStore, store);
  const bool copy_serves = CanBePutInForce(Source::kCopy, copy);
  if (records_serve || copy_serves) std::puts("To go on, one of these:");
  if (records_serve) std::puts("  vigilad --repair=records   with what is sound in the store");
  if (copy_serves) std::puts("  vigilad --repair=copy      with the copy");
  if (records_serve || copy_serves) {
    Print("The damaged store is kept beside it, under a name with \".damaged-\".", 0);
    return;
  }
  Print(
      "Neither can be put in force: without an administrator the device would be open. Put a "
      "backup in place as " +
          Printable(repair.PathOf(Source::kCopy)) +
          " and ask again; or reset the device, see vigilad(8).",
      0);
}

ExitCode PutInForce(const SettingsRepair& repair, Source source,
                    const SettingsRepair::Finding& finding) {
  if (!CanBePutInForce(source, finding)) {
    Print(
        "Nothing is changed: it is damaged, or without an administrator, and the device would be "
        "open. See vigilad --repair.",
        0);
    return kStoreUnusable;
  }
  const std::string aside = repair.PutInForce(finding.intact, true);
  std::printf("%zu records are in force.\n", finding.intact.size());
  if (!aside.empty()) Print("The damaged store is kept as " + Printable(aside) + ".", 0);
  std::puts("Start the service, and check the accounts: vigilactl user list");
  return kStopped;
}

// False when that is not possible.
bool BecomeOwnerOf(const std::string& directory) {
  struct stat status;
  if (geteuid() != 0 || stat(directory.c_str(), &status) != 0 || status.st_uid == 0) return true;
  return setgroups(0, nullptr) == 0 && setgid(status.st_gid) == 0 && setuid(status.st_uid) == 0;
}

ExitCode Repair(const std::string& what) {
  const SettingsRepair repair(kDomain);
  const std::string path = repair.PathOf(Source::kStore);
  if (!BecomeOwnerOf(std::filesystem::path(path).parent_path())) {
    throw tevra::osa::Exception("cannot become the owner of %s", path.c_str());
  }
  if (krand_core_settings_exist(kDomain) == 0) {
    Print("There is no store, and nothing is left of one: " + Printable(path) +
              ". If its key file is still there, put a backup of the store beside it; or reset the "
              "device, see vigilad(8).",
          0);
    return kStopped;
  }
  const StoreLock lock(path);
  SettingsRepair::Finding store = repair.Examine(Source::kStore);
  JudgeAccounts(store);
  if (store.damage.empty()) {
    Print("The store is sound, and nothing is changed: " + Printable(path), 0);
    return kStopped;
  }
  const SettingsRepair::Finding copy = repair.Examine(Source::kCopy);
  if (what == "records") return PutInForce(repair, Source::kStore, store);
  if (what == "copy") return PutInForce(repair, Source::kCopy, copy);
  PrintFinding("Store ", path, store);
  PrintFinding("Copy ", repair.PathOf(Source::kCopy), copy);
  PrintAdvice(repair, store, copy);
  return kStoreUnusable;
}

}  // namespace

ExitCode RepairStore(const std::string& what) {
  try {
    return Repair(what);
  } catch (const server::StartFailure& failure) {
    std::fprintf(stderr, "vigilad: %s\n", failure.what());
    return failure.cause() == server::StartFailure::kInUse ? kUnavailable : kStoreUnusable;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "vigilad: %s\n", failure.what());
    return kStoreUnusable;
  }
}

}  // namespace vigila::daemon

#include "vigilactl/doctor.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "vigilactl/printable_text.h"

namespace vigilactl {
namespace {

using Level = Finding::Level;
using Transport = tevra::msgbus::BusConfig::Transport;

// 2020-01-01: this program is younger.
constexpr time_t kEarliestTime = 1577836800;
constexpr uint64_t kMiB = 1024 * 1024;
// A full store, its log and its copy take some MiB while the copy is renewed.
constexpr uint64_t kLeastSpace = 4 * kMiB;
constexpr uint64_t kComfortableSpace = 32 * kMiB;

constexpr const char* kLevels[] = {"ok", "warning", "problem", "skipped"};  // by level
constexpr size_t kLevelWidth = 9;
constexpr size_t kCheckWidth = 15;

// A judgement of one check, without its name.
struct Judgement {
  Level level;
  std::string found;
  std::string remedy{};
};

Judgement Ok(std::string found) {
  return {Level::kOk, std::move(found)};
}
Judgement Warning(std::string found, std::string remedy) {
  return {Level::kWarning, std::move(found), std::move(remedy)};
}
Judgement Problem(std::string found, std::string remedy) {
  return {Level::kProblem, std::move(found), std::move(remedy)};
}
Judgement Skipped(const std::string& reason) {
  return {Level::kSkipped, "not looked at: " + reason};
}

std::string ModeText(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof(text), "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

std::string HasMode(const SeenFile& file) {
  return file.path + " has mode " + ModeText(file.mode);
}

std::string Chmod(const char* mode, const SeenFile& file) {
  return std::string("chmod ") + mode + " " + file.path;
}

// Only root and the service's user see into the directories that hold secrets.
Judgement Hidden() {
  return Skipped("only root and the service's user may");
}

Judgement JudgeConfiguration(const DoctorFacts& facts) {
  if (facts.misconfigured.empty()) return Ok(facts.configuration);
  return Problem(facts.misconfigured,
                 "Correct it in " + facts.configuration + "; vigilad --check-config checks it.");
}

// Behind the last colon: what was being done when it happened is in front of it.
std::string InnermostCause(const std::string& message) {
  const size_t colon = message.rfind(": ");
  return colon == std::string::npos ? message : message.substr(colon + 2);
}

Judgement JudgeService(const DoctorFacts& facts) {
  if (!facts.misconfigured.empty()) return Skipped("the configuration cannot be used");
  if (facts.silence.empty()) return Ok("answers");
  return Problem("does not answer: " + InnermostCause(facts.silence),
                 "systemctl start vigilad; why it ended: journalctl -u vigilad");
}

Judgement JudgeRuntimeDirectory(const SeenFile& directory) {
  if (directory.IsMissing()) {
    return Problem(directory.path + " is not there",
                   "The service's unit makes it: systemctl restart vigilad");
  }
  if (!directory.IsSeen()) {
    return Problem(directory.path + " cannot be looked into",
                   "Callers must be able to enter it: chmod 755, also what is above it.");
  }
  if ((directory.mode & (S_IWGRP | S_IWOTH)) != 0) {
    return Problem(HasMode(directory) + ": others may put a socket there", Chmod("755", directory));
  }
  return Ok("");
}

Judgement JudgeSocket(const DoctorFacts& facts) {
  if (!facts.misconfigured.empty()) return Skipped("the configuration cannot be used");
  if (facts.bus.transport == Transport::kBroker) return Skipped("the transport is a broker");
  const SeenFile& socket = facts.socket;
  Judgement directory = JudgeRuntimeDirectory(facts.runtime_directory);
  if (directory.level != Level::kOk) return directory;
  if (socket.IsMissing()) {
    return Problem(socket.path + " is not there",
                   "The service makes it; is runtime_dir the same in both configurations?");
  }
  if (!socket.IsSeen()) {
    return Problem(socket.path + " cannot be looked at", Chmod("755", facts.runtime_directory));
  }
  if (!S_ISSOCK(socket.mode)) {
    return Problem(socket.path + " is no socket", "Remove it: systemctl restart vigilad");
  }
  if (!facts.bus.Trusts(socket.owner)) {
    return Problem(
        "it belongs to uid " + std::to_string(socket.owner) + ", whom callers do not believe",
        "Name the service's user in [MsgBus] service_user.");
  }
  if ((socket.mode & 0777) != facts.bus.socket_mode) {
    return Warning(
        "mode " + ModeText(socket.mode) + ", configured is " + ModeText(facts.bus.socket_mode),
        "systemctl restart vigilad");
  }
  return Ok("mode " + ModeText(socket.mode) + " in " + facts.runtime_directory.path);
}

Judgement JudgeBrokerPolicy(const DoctorFacts& facts) {
  if (!facts.misconfigured.empty()) return Skipped("the configuration cannot be used");
  if (facts.bus.transport == Transport::kDirect) return Skipped("the transport is direct");
  const auto policy = std::find_if(facts.broker_policies.begin(), facts.broker_policies.end(),
                                   [](const SeenFile& file) { return file.IsSeen(); });
  if (policy != facts.broker_policies.end()) return Ok(policy->path);
  return Problem("the system bus has no policy for the service",
                 "Install tevra.SecurityProvider.conf under /usr/share/dbus-1/system.d.");
}

Judgement JudgeRoles(const DoctorFacts& facts) {
  if (!facts.service_role || !facts.admin_role) return Skipped("the service does not answer");
  if (*facts.service_role && *facts.admin_role) return Ok("service and admin");
  if (*facts.service_role) return Ok("service; accounts and rules need admin");
  const std::string remedy = "Add your group to service_groups in [Access], or ask as root.";
  if (*facts.admin_role) return Warning("admin, but not service: no logons, no queries", remedy);
  return Warning("none: the service refuses all you ask", remedy);
}

Judgement JudgeAdministrator(const DoctorFacts& facts) {
  if (!facts.service_role) return Skipped("the service does not answer");
  if (!facts.has_administrator) return Skipped("the caller lacks the role service");
  if (*facts.has_administrator) return Ok("there is one");
  return Problem("there is none: every token counts as authenticated",
                 "Add the first: vigilactl user add NAME -g admins");
}

Judgement JudgeLockOut(const DoctorFacts& facts) {
  if (!facts.misconfigured.empty()) return Skipped("the configuration cannot be used");
  if (facts.password_policy) return Ok("on");
  return Warning("off: guessing is free, and passwords never expire",
                 "Set password_policy = true in [Applications/vigila]; restart vigilad.");
}

Judgement JudgeStore(const DoctorFacts& facts) {
  const SeenFile& directory = facts.store_directory;
  if (directory.IsMissing()) {
    return Warning(directory.path + " is not there",
                   "The service makes it at its first start; else see [Settings] directory.");
  }
  if (!directory.IsSeen()) return Hidden();
  if ((directory.mode & (S_IWGRP | S_IWOTH)) != 0) {
    return Problem(HasMode(directory) + ": others may write it", Chmod("700", directory));
  }
  for (const SeenFile& file : facts.store_files) {
    if (!file.IsSeen()) continue;
    if ((file.mode & (S_IRWXG | S_IRWXO)) != 0) {
      return Problem(HasMode(file), Chmod("600", file));
    }
    if (file.owner != directory.owner) {
      return Problem(
          file.path + " belongs to uid " + std::to_string(file.owner),
          "Give it to its directory's: chown " + std::to_string(directory.owner) + " " + file.path);
    }
  }
  const SeenFile& store = facts.store_files.front();
  if (store.IsSeen()) return Ok(store.path);
  if (!store.IsMissing()) return Hidden();
  return Warning(store.path + " is not there", "The service makes it at its first start.");
}

Judgement JudgeKey(const DoctorFacts& facts) {
  const SeenFile& key = facts.key;
  if (key.IsMissing()) {
    const bool store = !facts.store_files.empty() && facts.store_files.front().IsSeen();
    if (!store) return Warning(key.path + " is not there", "The service makes it with the store.");
    return Problem(key.path + " is not there",
                   "Restore it from the backup: no stored password is readable without.");
  }
  if (!key.IsSeen()) return Hidden();
  const mode_t forbidden = facts.key_is_credential ? 0027 : 0077;
  if ((key.mode & forbidden) != 0) return Problem(HasMode(key), Chmod("600", key));
  const SeenFile& directory = facts.store_directory;
  if (!facts.key_is_credential && directory.IsSeen() && key.owner != directory.owner) {
    return Problem(
        key.path + " belongs to uid " + std::to_string(key.owner),
        "Give it to the store's: chown " + std::to_string(directory.owner) + " " + key.path);
  }
  return Ok(key.path + (facts.key_is_credential ? ", a credential" : ""));
}

Judgement JudgeSpace(const DoctorFacts& facts) {
  if (!facts.space) return Skipped("the store's directory is not there");
  const std::string remedy = "Make room where " + facts.store_directory.path + " lies.";
  if (facts.space->no_more_files) return Problem("the file system takes no more files", remedy);
  const std::string left = std::to_string(facts.space->bytes / kMiB) + " MiB left";
  if (facts.space->bytes < kLeastSpace) return Problem(left + ": changes may fail", remedy);
  return facts.space->bytes < kComfortableSpace ? Warning(left, remedy) : Ok(left);
}

Judgement JudgeClock(const DoctorFacts& facts) {
  tm parts = {};
  char text[32];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M UTC", gmtime_r(&facts.now, &parts));
  if (facts.now >= kEarliestTime) return Ok(text);
  return Problem(std::string(text) + ": it is not set",
                 "Set it (timedatectl): logons of web services and expiry go by it.");
}

Judgement JudgeGateway(const DoctorFacts& facts) {
  const GatewayFacts& gateway = facts.gateway;
  const std::string place = gateway.address + " port " + std::to_string(gateway.port);
  switch (gateway.state) {
    case GatewayFacts::State::kUnknown:
      return Skipped("no service manager that could be asked");
    case GatewayFacts::State::kNotInstalled:
      return Skipped("there is no unit vigila-gateway");
    case GatewayFacts::State::kStopped:
      return Warning("does not run", "systemctl start vigila-gateway");
    case GatewayFacts::State::kFailed:
      return Problem("has failed", "Its last words: journalctl -u vigila-gateway");
    case GatewayFacts::State::kRuns:
      break;
  }
  if (gateway.address.empty()) return Ok("runs; its port is not known");
  if (gateway.failure.empty()) return Ok("answers at " + place);
  return Problem(place + ": " + gateway.failure, "Its words: journalctl -u vigila-gateway");
}

struct Check {
  const char* name;
  Judgement (*judge)(const DoctorFacts& facts);
};

constexpr Check kChecks[] = {
    {"configuration", JudgeConfiguration},
    {"service", JudgeService},
    {"socket", JudgeSocket},
    {"broker-policy", JudgeBrokerPolicy},
    {"roles", JudgeRoles},
    {"administrator", JudgeAdministrator},
    {"lock-out", JudgeLockOut},
    {"store", JudgeStore},
    {"key", JudgeKey},
    {"space", JudgeSpace},
    {"clock", JudgeClock},
    {"gateway", JudgeGateway},
};

const char* LevelName(Level level) {
  return kLevels[static_cast<size_t>(level)];
}

std::string Padded(std::string text, size_t width) {
  text.resize(std::max(text.size() + 1, width), ' ');
  return text;
}

std::string Counted(size_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

}  // namespace

std::vector<Finding> Diagnose(const DoctorFacts& facts) {
  std::vector<Finding> findings;
  for (const Check& check : kChecks) {
    Judgement judgement = check.judge(facts);
    findings.push_back(
        {check.name, judgement.level, std::move(judgement.found), std::move(judgement.remedy)});
  }
  return findings;
}

size_t CountOf(const std::vector<Finding>& findings, Level level) {
  return static_cast<size_t>(std::count_if(findings.begin(), findings.end(),
                                           [&](const auto& f) { return f.level == level; }));
}

std::string RenderFindings(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& finding : findings) {
    text += Padded(LevelName(finding.level), kLevelWidth) + Padded(finding.check, kCheckWidth) +
            Printable(finding.found) + '\n';
    if (!finding.remedy.empty()) {
      text += std::string(kLevelWidth, ' ') + Printable(finding.remedy) + '\n';
    }
  }
  return text + Counted(CountOf(findings, Level::kProblem), "problem") + ", " +
         Counted(CountOf(findings, Level::kWarning), "warning") + ".\n";
}

Json DescribeFindings(const std::vector<Finding>& findings) {
  Json checks = Json::array();
  for (const Finding& finding : findings) {
    Json check = {
        {"Check", finding.check}, {"Level", LevelName(finding.level)}, {"Found", finding.found}};
    check["Do"] = finding.remedy.empty() ? Json() : Json(finding.remedy);
    checks.push_back(std::move(check));
  }
  return {{"Problems", CountOf(findings, Level::kProblem)},
          {"Warnings", CountOf(findings, Level::kWarning)},
          {"Checks", checks}};
}

}  // namespace vigilactl

#include "vigilactl/doctor_facts.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "tevra/core/platform_config.h"
#include "tevra/interfaces/access_denied.h"
#include "tevra/msgbus/caller_roles.h"
#include "tevra/osa/descriptor.h"
#include "vigilactl/account_listing.h"

namespace vigilactl {
namespace {

using tevra::core::ConfigKey;
using tevra::core::PlatformConfig;
using tevra::interfaces::AccessDenied;
using tevra::interfaces::ISecurityProvider;

const ConfigKey kStoreDirectory{"Settings", "directory", "/var/lib/vigila"};
const ConfigKey kKeyFile{"Applications/vigila", "key_file", ""};
const ConfigKey kPasswordPolicy{"Applications/vigila", "password_policy", "false"};

constexpr const char* kStoreFiles[] = {"vigila.db",         "vigila.db-wal",  "vigila.db-shm",
                                       "vigila.db.witness", "vigila.db.copy", "vigila.db.lock"};
constexpr const char* kKeyName = "/vigila.key";
constexpr const char* kUnitsCredentials = "/run/credentials/vigilad.service";
constexpr const char* kBrokerPolicies[] = {
    "/etc/dbus-1/system.d/tevra.SecurityProvider.conf",
    "/usr/share/dbus-1/system.d/tevra.SecurityProvider.conf"};
// By its path: what a caller's PATH finds must not run as root.
constexpr const char* kShowGateway =
    "/bin/systemctl show vigila-gateway.service --property=LoadState,ActiveState,ExecStart "
    "2>/dev/null";
constexpr int kConnectTimeoutMs = 1000;

std::string ConfigurationFile(const Invocation& invocation) {
  if (!invocation.config_file.empty()) return invocation.config_file;
  const char* const named = std::getenv(PlatformConfig::kEnvironmentVariable);
  return named != nullptr ? named : PlatformConfig::kDefaultPath;
}

// As the service reads it, as far as it concerns callers.
void ReadConfiguration(DoctorFacts& facts) {
  try {
    facts.bus = tevra::msgbus::BusConfig::FromPlatform();
    facts.password_policy = PlatformConfig::Get().GetBool(kPasswordPolicy);
    const tevra::msgbus::CallerRoles roles;
  } catch (const std::exception& error) {
    facts.misconfigured = error.what();
  }
}

// Whether the service lets the caller ask; throws when it does not answer.
template <typename Question>
bool IsAdmitted(const Question& question) {
  try {
    question();
    return true;
  } catch (const AccessDenied&) {
    return false;
  }
}

// Roles are known by what they open: the service judges them by its own configuration.
void AskService(Invocation& invocation, DoctorFacts& facts) {
  try {
    ISecurityProvider& provider = invocation.Provider();
    facts.service_role =
        IsAdmitted([&] { facts.has_administrator = AdministratorExists(provider); });
    facts.admin_role = IsAdmitted([&] { provider.GetUsers(); });
  } catch (const std::exception& error) {
    facts.silence = error.what();
  }
}

void LookAtSocket(DoctorFacts& facts) {
  facts.runtime_directory = SeenFile::LookAt(facts.bus.runtime_dir);
  facts.socket = SeenFile::LookAt(facts.bus.runtime_dir + "/" + ISecurityProvider::kDestination);
  for (const char* path : kBrokerPolicies) facts.broker_policies.push_back(SeenFile::LookAt(path));
}

// The service's own order: a credential goes before every file.
void LookAtKey(const std::string& store_directory, DoctorFacts& facts) {
  const char* const given = std::getenv("CREDENTIALS_DIRECTORY");
  for (const char* directory : {given, kUnitsCredentials}) {
    if (directory == nullptr) continue;
    facts.key = SeenFile::LookAt(std::string(directory) + kKeyName);
    facts.key_is_credential = facts.key.IsSeen();
    if (facts.key_is_credential) return;
  }
  const std::string configured = PlatformConfig::Get().GetString(kKeyFile);
  facts.key = SeenFile::LookAt(configured.empty() ? store_directory + kKeyName : configured);
}

void LookAtStore(DoctorFacts& facts) {
  const std::string directory = PlatformConfig::Get().GetString(kStoreDirectory);
  facts.store_directory = SeenFile::LookAt(directory);
  for (const char* name : kStoreFiles) {
    facts.store_files.push_back(SeenFile::LookAt(directory + "/" + name));
  }
  LookAtKey(directory, facts);
  struct statvfs status;
  if (statvfs(directory.c_str(), &status) == 0) {
    facts.space = {static_cast<uint64_t>(status.f_bavail) * status.f_frsize,
                   status.f_files > 0 && status.f_favail == 0};
  }
}

std::string OutputOf(const char* command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command, "re"), &pclose);
  if (pipe == nullptr) return {};
  std::string output;
  char part[4096];
  size_t length;
  while ((length = fread(part, 1, sizeof(part), pipe.get())) > 0) output.append(part, length);
  return output;
}

// A port that is open on every address is so on this machine's own.
const char* ReachableAddress(const std::string& address) {
  if (address == "0.0.0.0") return "127.0.0.1";
  return address == "::" ? "::1" : address.c_str();
}

int Connect(int family, const void* address, socklen_t length) {
  const tevra::osa::Descriptor socket(
      ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return errno;
  if (connect(socket.get(), static_cast<const sockaddr*>(address), length) == 0) return 0;
  if (errno != EINPROGRESS) return errno;
  pollfd wait = {socket.get(), POLLOUT, 0};
  if (poll(&wait, 1, kConnectTimeoutMs) != 1) return ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof(error);
  return getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

std::string FailureToConnect(const GatewayFacts& gateway) {
  const char* const text = ReachableAddress(gateway.address);
  sockaddr_in v4 = {};
  v4.sin_family = AF_INET;
  v4.sin_port = htons(gateway.port);
  sockaddr_in6 v6 = {};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(gateway.port);
  int error = EADDRNOTAVAIL;
  if (inet_pton(AF_INET, text, &v4.sin_addr) == 1) {
    error = Connect(AF_INET, &v4, sizeof(v4));
  } else if (inet_pton(AF_INET6, text, &v6.sin6_addr) == 1) {
    error = Connect(AF_INET6, &v6, sizeof(v6));
  }
  return error == 0 ? std::string() : std::strerror(error);
}

// The value behind "NAME=" on a line of its own.
std::string Property(const std::string& properties, const std::string& name) {
  std::istringstream lines(properties);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name + "=")) return line.substr(name.size() + 1);
  }
  return {};
}

// "--port 80" or "--port=80" among the words of a command line; empty when it is not there.
std::string OptionValue(const std::string& command, const std::string& option) {
  std::istringstream words(command);
  for (std::string word; words >> word;) {
    if (word == option) return words >> word ? word : std::string();
    if (word.starts_with(option + "=")) return word.substr(option.size() + 1);
  }
  return {};
}

}  // namespace

SeenFile SeenFile::LookAt(const std::string& path) {
  SeenFile file;
  file.path = path;
  struct stat status;
  if (stat(path.c_str(), &status) == 0) {
    file.sight = Sight::kSeen;
    file.mode = status.st_mode;
    file.owner = status.st_uid;
  } else if (errno == ENOENT || errno == ENOTDIR) {
    file.sight = Sight::kMissing;
  }
  return file;
}

GatewayFacts ReadGatewayUnit(const std::string& properties) {
  using State = GatewayFacts::State;
  GatewayFacts gateway;
  const std::string loaded = Property(properties, "LoadState");
  if (loaded.empty()) return gateway;
  const std::string active = Property(properties, "ActiveState");
  gateway.state = loaded == "not-found" ? State::kNotInstalled
                  : active == "active"  ? State::kRuns
                  : active == "failed"  ? State::kFailed
                                        : State::kStopped;
  const std::string command = Property(properties, "ExecStart");
  const std::string port = OptionValue(command, "--port");
  const char* const end = port.data() + port.size();
  const auto [behind, error] = std::from_chars(port.data(), end, gateway.port);
  // Port 0 is whichever is free.
  if (error != std::errc() || behind != end || gateway.port == 0) return gateway;
  gateway.address = OptionValue(command, "--listen");
  if (gateway.address.empty()) gateway.address = "127.0.0.1";
  return gateway;
}

void TryGateway(GatewayFacts& gateway) {
  if (gateway.state != GatewayFacts::State::kRuns || gateway.address.empty()) return;
  gateway.failure = FailureToConnect(gateway);
}

DoctorFacts GatherDoctorFacts(Invocation& invocation) {
  DoctorFacts facts;
  facts.configuration = ConfigurationFile(invocation);
  facts.now = time(nullptr);
  facts.gateway = ReadGatewayUnit(OutputOf(kShowGateway));
  TryGateway(facts.gateway);
  LookAtStore(facts);
  ReadConfiguration(facts);
  if (!facts.misconfigured.empty()) return facts;
  LookAtSocket(facts);
  AskService(invocation, facts);
  return facts;
}

}  // namespace vigilactl

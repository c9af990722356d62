#ifndef VIGILACTL_DOCTOR_FACTS_H_
#define VIGILACTL_DOCTOR_FACTS_H_

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "tevra/msgbus/bus_config.h"
#include "vigilactl/invocation.h"

namespace vigilactl {

// A file or directory, as far as the caller may see it.
struct SeenFile {
  enum class Sight { kSeen, kMissing, kHidden };

  static SeenFile LookAt(const std::string& path);

  bool IsSeen() const { return sight == Sight::kSeen; }
  bool IsMissing() const { return sight == Sight::kMissing; }

  std::string path;
  Sight sight = Sight::kHidden;
  mode_t mode = 0;  // with the type
  uid_t owner = 0;
};

// What the service manager says of the gateway, and whether someone answers where it listens.
struct GatewayFacts {
  enum class State { kUnknown, kNotInstalled, kStopped, kFailed, kRuns };

  State state = State::kUnknown;
  std::string address;  // empty when its command line names no port
  uint16_t port = 0;
  std::string failure;  // why the address cannot be connected to; empty when it can
};

// Everything that the doctor looks at, and nothing judged yet. What is empty could not be looked
// at.
struct DoctorFacts {
  std::string configuration;  // the file
  std::string misconfigured;  // why it cannot be used; the rest is then not looked at
  tevra::msgbus::BusConfig bus;
  bool password_policy = false;

  std::string silence;  // why the service does not answer; empty when it does
  std::optional<bool> service_role;
  std::optional<bool> admin_role;
  std::optional<bool> has_administrator;

  SeenFile runtime_directory;
  SeenFile socket;
  std::vector<SeenFile> broker_policies;  // where the broker would find one

  SeenFile store_directory;
  std::vector<SeenFile> store_files;  // the store itself first
  SeenFile key;
  bool key_is_credential = false;
  struct Space {
    uint64_t bytes;
    bool no_more_files;
  };
  std::optional<Space> space;  // where the store lies

  time_t now = 0;
  GatewayFacts gateway;
};

// Looks at everything, as the caller. Changes nothing, and throws nothing for what it cannot see.
DoctorFacts GatherDoctorFacts(Invocation& invocation);

// What `systemctl show` said of the gateway's unit, in `properties`; connects to nothing.
GatewayFacts ReadGatewayUnit(const std::string& properties);
// Connects to a gateway that runs and whose address is known, and notes the failure.
void TryGateway(GatewayFacts& gateway);

}  // namespace vigilactl

#endif  // VIGILACTL_DOCTOR_FACTS_H_

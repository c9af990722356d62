#ifndef VIGILAD_DAEMON_CONFIGURATION_H_
#define VIGILAD_DAEMON_CONFIGURATION_H_

#include <string>

namespace vigila::daemon {

// The daemon's own part of the platform configuration, [Applications/vigila].
struct DaemonConfiguration {
  int session_timeout_secs;
  bool password_policy;

  // Makes `path` the platform configuration of this process and of those it starts; empty for the
  // default one. Throws tevra::osa::Exception that names the file.
  static void Load(const std::string& path);
  // Reads the daemon's keys and has the platform read its own, so that a mistake is found before
  // anything starts. Throws tevra::osa::Exception that names the key or the value.
  static DaemonConfiguration Read();
};

}  // namespace vigila::daemon

#endif  // VIGILAD_DAEMON_CONFIGURATION_H_

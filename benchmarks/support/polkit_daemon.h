#ifndef BENCHMARKS_SUPPORT_POLKIT_DAEMON_H_
#define BENCHMARKS_SUPPORT_POLKIT_DAEMON_H_

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "support/private_dbus_daemon.h"

namespace benchmarks {

// A polkitd with the system's own actions and rules on a broker of the benchmark's own, and a
// process of an ordinary user to ask about. Start it before the process has threads.
class PolkitDaemon {
 public:
  static constexpr const char* kProgram = "/usr/lib/polkit-1/polkitd";
  static constexpr const char* kName = "org.freedesktop.PolicyKit1";

  // Null when polkit or dbus-daemon is not installed, or when we are not root, whom polkitd needs.
  static std::unique_ptr<PolkitDaemon> Start() {
    if (access(kProgram, X_OK) != 0 || geteuid() != 0) return nullptr;
    auto broker = support::PrivateDbusDaemon::Start();
    if (!broker) return nullptr;
    return std::unique_ptr<PolkitDaemon>(new PolkitDaemon(std::move(broker)));
  }
  ~PolkitDaemon() {
    sd_bus_flush_close_unref(bus_);
    for (const pid_t pid : {daemon_, subject_}) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  PolkitDaemon(const PolkitDaemon&) = delete;
  PolkitDaemon& operator=(const PolkitDaemon&) = delete;

  // Whether there was an answer; which one does not matter.
  bool CheckAuthorization() {
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_call_method(
        bus_, kName, "/org/freedesktop/PolicyKit1/Authority",
        "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization", nullptr, &reply,
        "(sa{sv})sa{ss}us", "unix-process", 3, "pid", "u", subject_, "start-time", "t", uint64_t{0},
        "uid", "i", kNobody, "org.freedesktop.policykit.exec", 0, 0, "");
    sd_bus_message_unref(reply);
    return result >= 0;
  }

 private:
  static constexpr int kNobody = 65534;

  explicit PolkitDaemon(std::unique_ptr<support::PrivateDbusDaemon> broker)
      : broker_(std::move(broker)) {
    subject_ = Fork([] {
      if (setresuid(kNobody, kNobody, kNobody) == 0) pause();
    });
    const std::string address = broker_->address();
    daemon_ = Fork([&address] {
      setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
      const int nowhere = open("/dev/null", O_RDWR);
      for (int fd = 0; fd < 3; ++fd) dup2(nowhere, fd);
      execl(kProgram, kProgram, "--no-debug", nullptr);
    });
    sd_bus_new(&bus_);
    sd_bus_set_address(bus_, address.c_str());
    sd_bus_set_bus_client(bus_, 1);
    if (sd_bus_start(bus_) < 0) throw std::runtime_error("polkit: no broker");
    AwaitName();
  }

  template <typename Body>
  static pid_t Fork(const Body& body) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    body();
    _exit(1);
  }

  // polkitd takes its name when it is ready.
  void AwaitName() {
    for (int i = 0; i < 1000; ++i) {
      if (sd_bus_get_name_creds(bus_, kName, 0, nullptr) >= 0) return;
      usleep(10000);
    }
    throw std::runtime_error("polkitd did not start");
  }

  const std::unique_ptr<support::PrivateDbusDaemon> broker_;
  sd_bus* bus_ = nullptr;
  pid_t daemon_ = -1;
  pid_t subject_ = -1;
};

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_POLKIT_DAEMON_H_

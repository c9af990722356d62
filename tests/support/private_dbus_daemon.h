#ifndef SUPPORT_PRIVATE_DBUS_DAEMON_H_
#define SUPPORT_PRIVATE_DBUS_DAEMON_H_

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

#include "support/temp_dir.h"

namespace support {

// A dbus-daemon of the test's own that lets every user do everything. Killed at destruction.
class PrivateDbusDaemon {
 public:
  // Null when dbus-daemon cannot be run. `limits` are elements of its configuration.
  static std::unique_ptr<PrivateDbusDaemon> Start(const std::string& limits = "") {
    std::unique_ptr<PrivateDbusDaemon> daemon(new PrivateDbusDaemon(limits));
    if (!daemon->Launch()) return nullptr;
    return daemon;
  }
  ~PrivateDbusDaemon() { Kill(); }
  PrivateDbusDaemon(const PrivateDbusDaemon&) = delete;
  PrivateDbusDaemon& operator=(const PrivateDbusDaemon&) = delete;

  // The same after a restart.
  std::string address() const { return "unix:path=" + directory_.File("bus"); }
  // It takes no notice of anybody until it is continued.
  void Pause() { kill(pid_, SIGSTOP); }
  void Continue() { kill(pid_, SIGCONT); }
  // The broker dies without a word to anybody.
  void Kill() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  bool Restart() {
    Kill();
    unlink((directory_.File("bus")).c_str());
    return Launch();
  }

 private:
  explicit PrivateDbusDaemon(const std::string& limits) {
    chmod(directory_.Path().c_str(), 0755);
    std::ofstream(directory_.File("bus.conf"))
        << "<busconfig><type>session</type><listen>unix:path=" << directory_.Path()
        << "/bus</listen><auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
           "<allow own=\"*\"/><allow user=\"*\"/></policy>"
        << limits << "</busconfig>\n";
  }

  bool Launch() {
    int address_pipe[2];
    if (pipe2(address_pipe, O_CLOEXEC) != 0) return false;
    const std::string config = "--config-file=" + directory_.File("bus.conf");
    pid_ = fork();
    if (pid_ == 0) {
      dup2(address_pipe[1], STDOUT_FILENO);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      execlp("dbus-daemon", "dbus-daemon", config.c_str(), "--nofork", "--print-address", nullptr);
      _exit(127);
    }
    close(address_pipe[1]);
    char byte = 0;
    const bool listens = read(address_pipe[0], &byte, 1) == 1;
    close(address_pipe[0]);
    if (!listens) Kill();
    return listens;
  }

  TempDir directory_;
  pid_t pid_ = -1;
};

}  // namespace support

#endif  // SUPPORT_PRIVATE_DBUS_DAEMON_H_

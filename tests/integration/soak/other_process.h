#ifndef TESTS_INTEGRATION_SOAK_OTHER_PROCESS_H_
#define TESTS_INTEGRATION_SOAK_OTHER_PROCESS_H_

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <mutex>
#include <stdexcept>
#include <string>

#include "support/program.h"

namespace soak {

// A Servant that lives in a process of its own, where nothing that befalls this one's descriptors
// reaches it. It is called with one order after the other and answers each; both are short and not
// empty. Begin it before this process has threads. Any thread may ask.
template <typename Servant>
class OtherProcess final {
 public:
  template <typename... Arguments>
  explicit OtherProcess(const Arguments&... arguments) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("socketpair");
    }
    mine_ = support::Fd(ends[0]);
    const support::Fd others(ends[1]);
    process_ = fork();
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    {
      Servant servant(arguments...);
      for (std::string order; !(order = Receive(ends[1])).empty();) Send(ends[1], servant(order));
    }
    _exit(0);
  }
  ~OtherProcess() {
    shutdown(mine_.Get(), SHUT_RDWR);
    waitpid(process_, nullptr, 0);
  }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;

  // Answers nothing when the process is gone.
  std::string Ask(const std::string& order) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Send(mine_.Get(), order);
    return Receive(mine_.Get());
  }
  int Descriptor() const { return mine_.Get(); }

 private:
  static void Send(int fd, const std::string& text) {
    send(fd, text.data(), text.size(), MSG_NOSIGNAL);
  }
  static std::string Receive(int fd) {
    char text[4096];
    const ssize_t size = recv(fd, text, sizeof(text), 0);
    return size > 0 ? std::string(text, static_cast<size_t>(size)) : "";
  }

  mutable std::mutex mutex_;
  support::Fd mine_;
  pid_t process_ = -1;
};

}  // namespace soak

#endif  // TESTS_INTEGRATION_SOAK_OTHER_PROCESS_H_

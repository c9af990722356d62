#ifndef BENCHMARKS_SUPPORT_SOCKET_PAIR_SERVER_H_
#define BENCHMARKS_SUPPORT_SOCKET_PAIR_SERVER_H_

#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <stdexcept>
#include <vector>

#include "support/program.h"

namespace benchmarks {

// A process with one thread that waits for calls on a few socket pairs and answers each with so
// many bytes: what a question to another process costs at least. Killed at destruction. Start it
// before the process has threads.
class SocketPairServer {
 public:
  static constexpr size_t kLongest = 4096;

  explicit SocketPairServer(int connections) {
    std::vector<support::Fd> served;
    for (int i = 0; i < connections; ++i) {
      int pair[2];
      if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        throw std::runtime_error("socketpair");
      }
      clients_.emplace_back(pair[0]);
      served.emplace_back(pair[1]);
    }
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      clients_.clear();
      Serve(served);
      _exit(1);
    }
  }
  ~SocketPairServer() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  SocketPairServer(const SocketPairServer&) = delete;
  SocketPairServer& operator=(const SocketPairServer&) = delete;

  pid_t Pid() const { return pid_; }

  // One call and its answer over one of the pairs, each of so many bytes. A call's first two bytes
  // are the size of its answer.
  bool Call(size_t connection, size_t call_bytes, size_t reply_bytes) const {
    const int fd = clients_[connection].Get();
    std::array<char, kLongest> bytes{};
    bytes[0] = static_cast<char>(reply_bytes & 0xff);
    bytes[1] = static_cast<char>(reply_bytes >> 8);
    return send(fd, bytes.data(), call_bytes, MSG_NOSIGNAL) == static_cast<ssize_t>(call_bytes) &&
           recv(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(reply_bytes);
  }

 private:
  static void Serve(const std::vector<support::Fd>& served) {
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    for (const support::Fd& fd : served) {
      epoll_event event = {};
      event.events = EPOLLIN;
      event.data.fd = fd.Get();
      epoll_ctl(epoll, EPOLL_CTL_ADD, fd.Get(), &event);
    }
    std::array<char, kLongest> bytes{};
    while (true) {
      epoll_event event = {};
      if (epoll_wait(epoll, &event, 1, -1) != 1) continue;
      if (recv(event.data.fd, bytes.data(), bytes.size(), 0) < 2) return;
      const size_t size =
          static_cast<unsigned char>(bytes[0]) + size_t{256} * static_cast<unsigned char>(bytes[1]);
      if (send(event.data.fd, bytes.data(), size, MSG_NOSIGNAL) < 0) return;
    }
  }

  std::vector<support::Fd> clients_;
  pid_t pid_ = -1;
};

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_SOCKET_PAIR_SERVER_H_

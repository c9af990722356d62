#include "tevra/core/standard_error.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "tevra/osa/descriptor.h"

namespace tevra::core {
namespace {

// A write whose SIGPIPE, if it raises one, is taken back before anybody gets it.
ssize_t WriteWithoutSignal(int fd, std::string_view bytes) {
  sigset_t pipe_signal, pending, before;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  sigpending(&pending);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &before);
  const ssize_t written = write(fd, bytes.data(), bytes.size());
  const int reason = errno;
  if (written < 0 && reason == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
    constexpr timespec kAtOnce{};
    sigtimedwait(&pipe_signal, nullptr, &kAtOnce);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = reason;
  return written;
}

// Whether a write waits is a property of the open file, which other processes share and rely on. So
// the pipe or terminal is opened once more.
ssize_t WriteToPipeOrTerminal(std::string_view bytes) {
  const osa::Descriptor own(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (own) return WriteWithoutSignal(own.get(), bytes);
  // It is another user's, or no descriptor is left. A pipe that polls as writable takes this much;
  // only another process that fills it in between could make us wait.
  pollfd room{STDERR_FILENO, POLLOUT, 0};
  if (poll(&room, 1, 0) > 0 && (room.revents & POLLOUT) != 0) {
    return WriteWithoutSignal(STDERR_FILENO, bytes.substr(0, PIPE_BUF));
  }
  errno = EAGAIN;
  return -1;
}

ssize_t WriteNow(std::string_view bytes) {
  const ssize_t sent = send(STDERR_FILENO, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0 || errno != ENOTSOCK) return sent;
  struct stat status;
  if (fstat(STDERR_FILENO, &status) != 0) return -1;
  if (S_ISREG(status.st_mode)) return write(STDERR_FILENO, bytes.data(), bytes.size());
  return WriteToPipeOrTerminal(bytes);
}

}  // namespace

bool StandardError::Write(std::string_view line) {
  std::string whole = is_torn_ ? "\n" : "";
  whole.append(line).append("\n");
  // One write in the usual case: lines of several processes that share the stream do not mix.
  size_t done = 0;
  while (done < whole.size()) {
    const ssize_t taken = WriteNow(std::string_view(whole).substr(done));
    if (taken < 0 && errno == EINTR) continue;
    if (taken <= 0) break;
    done += static_cast<size_t>(taken);
  }
  if (done > 0) is_torn_ = done < whole.size();
  return done == whole.size();
}

}  // namespace tevra::core

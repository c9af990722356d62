#include "vigila/server/vigila_server.h"

#include <fcntl.h>
#include <sys/select.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>

#include "tevra/core/logger.h"
#include "tevra/osa/exception.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/server_env.h"
#include "vigila/server/vigila_dbus_server.h"

namespace vigila::server {
namespace {

// Process-wide, so that the signal handler, which has no object, reaches the loop.
std::atomic<int> stop_write_end = -1;
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void RequestStop(int) {
  const int saved_errno = errno;
  const char text[] = {'e', 'x', 'i', 't'};
  size_t written = 0;
  while (written < sizeof(text)) {
    const ssize_t count = write(stop_write_end, text + written, sizeof(text) - written);
    if (count > 0) {
      written += static_cast<size_t>(count);
    } else if (count == 0 || errno != EINTR) {
      // A full pipe has been written to before: the loop stops anyway.
      break;
    }
  }
  errno = saved_errno;
}

// The stop signals, led into a pipe for as long as this lives.
class StopSignals final {
 public:
  StopSignals();
  ~StopSignals() { Close(); }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  void Wait() const;
  // Gives the signals back their default handling; the result of closing the write end.
  int Close();

 private:
  int ends_[2];
  bool open_ = true;
};

StopSignals::StopSignals() {
  if (pipe2(ends_, O_CLOEXEC) != 0) throw tevra::osa::Exception("pipe failed");
  if (ends_[0] >= FD_SETSIZE) {
    // select cannot watch it.
    close(ends_[0]);
    close(ends_[1]);
    throw tevra::osa::Exception("pipe failed");
  }
  fcntl(ends_[1], F_SETFL, O_NONBLOCK);
  stop_write_end = ends_[1];
  // Deliberate: SIGINT first; whoever traces the start expects to see it before SIGTERM.
  std::signal(SIGINT, RequestStop);
  std::signal(SIGTERM, RequestStop);
}

void StopSignals::Wait() const {
  int result;
  do {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(ends_[0], &readable);
    result = select(ends_[0] + 1, &readable, nullptr, nullptr, nullptr);
  } while (result == 0);
  // Deliberate: -1 ends the wait as well, for a signal that interrupts it (EINTR) is a stop signal.
  // The pipe is never read: whoever waits later in this run must find it readable.
}

int StopSignals::Close() {
  if (!open_) return 0;
  open_ = false;
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
  stop_write_end = -1;
  close(ends_[0]);
  return close(ends_[1]);
}

}  // namespace

VigilaServer::VigilaServer(ServerEnv& env)
    : env_(env), logger_(tevra::core::Logger::GetLogger("VigilaServer")) {}

VigilaServer::~VigilaServer() = default;

int VigilaServer::Run() {
  // Deliberate: fetched and not used; the logger shows up in the registry from here on.
  tevra::core::Logger::GetLogger(ServerEnv::kSettingsGroupName);

  StopSignals stop;
  auto endpoint = std::make_unique<VigilaDbusServer>(env_.GetMsgBus(), env_.GetSecurityProvider());
  sd_notify(0, "READY=1");
  try {
    stop.Wait();
  } catch (...) {
    logger_->Error("Caught exception in main loop");
    throw;
  }
  logger_->Information("Main loop exiting normally");
  logger_->Information("Server Stopped");
  endpoint.reset();
  return stop.Close();
}

}  // namespace vigila::server

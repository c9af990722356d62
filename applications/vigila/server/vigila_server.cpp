#include "vigila/server/vigila_server.h"

#include <fcntl.h>
#include <sys/select.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <memory>
#include <optional>

#include "tevra/core/logger.h"
#include "tevra/msgbus/i_msg_bus.h"
#include "tevra/osa/descriptor.h"
#include "tevra/osa/exception.h"
#include "vigila/server/administration/administration_endpoint.h"
#include "vigila/server/bus_timer.h"
#include "vigila/server/open_device_warning.h"
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
  tevra::osa::Descriptor read_end_;
  tevra::osa::Descriptor write_end_;
};

// Tells the service manager, twice in the time that it grants, that requests are still answered; on
// the thread that answers them. Nothing where the service manager does not ask for it.
class Watchdog final {
 public:
  explicit Watchdog(tevra::msgbus::IMsgBus& bus) {
    uint64_t granted_us = 0;
    if (sd_watchdog_enabled(0, &granted_us) <= 0) return;
    const std::chrono::milliseconds interval(std::max<uint64_t>(granted_us / 2000, 1));
    timer_.emplace(bus, interval, [] { sd_notify(0, "WATCHDOG=1"); });
  }

 private:
  std::optional<BusTimer> timer_;
};

StopSignals::StopSignals() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw tevra::osa::Exception("pipe failed");
  read_end_.Reset(ends[0]);
  write_end_.Reset(ends[1]);
  // select cannot watch it.
  if (read_end_.get() >= FD_SETSIZE) throw tevra::osa::Exception("pipe failed");
  fcntl(write_end_.get(), F_SETFL, O_NONBLOCK);
  stop_write_end = write_end_.get();
  // Deliberate: SIGINT first; whoever traces the start expects to see it before SIGTERM.
  std::signal(SIGINT, RequestStop);
  std::signal(SIGTERM, RequestStop);
}

void StopSignals::Wait() const {
  int result;
  do {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(read_end_.get(), &readable);
    result = select(read_end_.get() + 1, &readable, nullptr, nullptr, nullptr);
  } while (result == 0);
  // Deliberate: -1 ends the wait as well, for a signal that interrupts it (EINTR) is a stop signal.
  // The pipe is never read: whoever waits later in this run must find it readable.
}

int StopSignals::Close() {
  if (!write_end_) return 0;
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
  stop_write_end = -1;
  read_end_.Reset();
  return close(write_end_.Release());
}

}  // namespace

VigilaServer::VigilaServer(ServerEnv& env)
    : env_(env), logger_(tevra::core::Logger::GetLogger("VigilaServer")) {}

VigilaServer::~VigilaServer() = default;

int VigilaServer::Run() {
  // Deliberate: fetched and not used; the logger shows up in the registry from here on.
  tevra::core::Logger::GetLogger(ServerEnv::kSettingsGroupName);

  StopSignals stop;
  // Before the endpoint below, which makes the service's name known: who finds it finds all of it.
  const AdministrationEndpoint administration(env_);
  auto endpoint = std::make_unique<VigilaDbusServer>(env_.GetMsgBus(), env_.GetSecurityProvider());
  const Watchdog watchdog(*env_.GetMsgBus());
  const OpenDeviceWarning open_device_warning(*env_.GetMsgBus());
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

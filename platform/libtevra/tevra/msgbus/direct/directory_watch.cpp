#include "tevra/msgbus/direct/directory_watch.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <utility>

#include "tevra/core/logger.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr uint32_t kEvents = IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t kLost = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;
constexpr std::chrono::milliseconds kPollInterval{50};

}  // namespace

DirectoryWatch::DirectoryWatch(DispatchThread& dispatch, std::string directory,
                               DispatchThread::Task changed)
    : dispatch_(dispatch), directory_(std::move(directory)), changed_(std::move(changed)) {}

void DirectoryWatch::Start() {
  if (!inotify_ && !polling_) Open();
}

void DirectoryWatch::Open() {
  try {
    osa::Descriptor inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!inotify) throw osa::Exception("%s", strerror(errno));
    watch_ = dispatch_.Watch(inotify.get(), EPOLLIN, [this](uint32_t events) { OnEvents(events); });
    inotify_ = std::move(inotify);
  } catch (const std::exception& failure) {
    if (!std::exchange(complained_, true)) {
      core::Logger::GetLogger("MsgBus")->Warning("no inotify for %s: %s", directory_.c_str(),
                                                 failure.what());
    }
    return Poll();
  }
  complained_ = false;
  Arm();
}

void DirectoryWatch::OnEvents(uint32_t events) {
  if ((events & DispatchThread::kLost) != 0) {
    dispatch_.Remove(watch_);
    static_cast<void>(inotify_.Release());
    armed_ = -1;
    Start();  // may have to poll; whatever has changed until then is told now
    return changed_();
  }
  alignas(inotify_event) std::array<char, 4096> buffer;
  bool lost = false;
  ssize_t count = 0;
  while ((count = read(inotify_.get(), buffer.data(), buffer.size())) > 0) {
    for (ssize_t at = 0; at < count;) {
      inotify_event event;
      memcpy(&event, buffer.data() + at, sizeof event);
      if (event.wd == armed_ && (event.mask & kLost) != 0) lost = true;
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
  }
  if (lost || !complete_) Arm();
  changed_();
}

// Watches the directory, or the nearest one above it that exists. What came into being while we
// looked further up is found by looking again from below.
void DirectoryWatch::Arm() {
  std::filesystem::path path = std::filesystem::absolute(directory_);
  std::filesystem::path missing;
  for (;;) {
    const bool armed = ArmOn(path.string());
    if (armed && (missing.empty() || access(missing.c_str(), F_OK) != 0)) {
      complete_ = missing.empty();
      return;
    }
    if (armed) {
      path = std::exchange(missing, std::filesystem::path());
    } else if (path.has_relative_path()) {
      missing = path;
      path = path.parent_path();
    } else {
      return Poll();
    }
  }
}

bool DirectoryWatch::ArmOn(const std::string& directory) {
  const int watch = inotify_add_watch(inotify_.get(), directory.c_str(), kEvents | IN_ONLYDIR);
  if (watch < 0) return false;
  if (armed_ >= 0 && armed_ != watch) inotify_rm_watch(inotify_.get(), armed_);
  armed_ = watch;
  return true;
}

// Without the kernel's help: look now and then, until it can be had.
void DirectoryWatch::Poll() {
  if (std::exchange(polling_, true)) return;
  dispatch_.After(kPollInterval, [this] {
    polling_ = false;
    if (inotify_) {
      Arm();
    } else {
      Open();
    }
    changed_();
  });
}

}  // namespace tevra::msgbus

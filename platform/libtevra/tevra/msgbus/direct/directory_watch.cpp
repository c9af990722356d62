#include "tevra/msgbus/direct/directory_watch.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <utility>

#include "tevra/core/logger.h"

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
  if (inotify_) return;
  inotify_.Reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!inotify_) {
    core::Logger::GetLogger("MsgBus")->Warning("no inotify for %s: %s", directory_.c_str(),
                                               strerror(errno));
    return Poll();
  }
  watch_ = dispatch_.Watch(inotify_.get(), EPOLLIN, [this](uint32_t events) { OnEvents(events); });
  Arm();
}

void DirectoryWatch::OnEvents(uint32_t events) {
  if ((events & DispatchThread::kLost) != 0) {
    dispatch_.Remove(watch_);
    static_cast<void>(inotify_.Release());
    armed_ = -1;
    Start();
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

// Without the kernel's help: look now and then.
void DirectoryWatch::Poll() {
  dispatch_.After(kPollInterval, [this] {
    if (inotify_) {
      Arm();
    } else {
      Poll();
    }
    changed_();
  });
}

}  // namespace tevra::msgbus

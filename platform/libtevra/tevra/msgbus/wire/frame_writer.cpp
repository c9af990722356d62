#include "tevra/msgbus/wire/frame_writer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "tevra/core/secret_text.h"

namespace tevra::msgbus::wire {
namespace {

// Nearly every message fits.
constexpr size_t kUsualBytes = 4096;

// Bytes sent, none while the peer takes none; -1 on a dead connection.
ssize_t SendSome(int socket, std::string_view bytes) {
  for (;;) {
    const ssize_t count = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) return count;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
    if (errno != EINTR) return -1;
  }
}

}  // namespace

FrameWriter::~FrameWriter() {
  core::Wipe(pending_);
}

bool FrameWriter::Send(int socket, std::string_view frames) {
  if (PendingBytes() == 0) {
    const ssize_t count = SendSome(socket, frames);
    if (count < 0) return false;
    frames.remove_prefix(static_cast<size_t>(count));
  }
  if (pending_.capacity() - pending_.size() < frames.size()) Grow(frames.size());
  pending_.append(frames);
  return true;
}

// A string that grows by itself gives memory back that still holds what is waiting.
void FrameWriter::Grow(size_t more) {
  std::string larger;
  larger.reserve(std::max(2 * pending_.size(), pending_.size() + more));
  larger = pending_;
  core::Wipe(pending_);
  pending_.swap(larger);
}

bool FrameWriter::Flush(int socket) {
  if (PendingBytes() == 0) return true;
  const ssize_t count = SendSome(socket, std::string_view(pending_).substr(sent_));
  if (count < 0) return false;
  sent_ += static_cast<size_t>(count);
  // Once all is sent the memory is given back; until then only what lies far behind is.
  if (sent_ == pending_.size()) {
    core::Wipe(pending_);
    std::string().swap(pending_);
    sent_ = 0;
  } else if (sent_ > pending_.size() / 2) {
    pending_.erase(0, sent_);
    sent_ = 0;
  }
  return true;
}

ScopedFrameWipe::~ScopedFrameWipe() {
  core::Wipe(*frames_);
  if (frames_->capacity() > kUsualBytes) std::string().swap(*frames_);
}

}  // namespace tevra::msgbus::wire

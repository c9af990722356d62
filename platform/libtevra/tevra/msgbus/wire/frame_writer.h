#ifndef TEVRA_MSGBUS_WIRE_FRAME_WRITER_H_
#define TEVRA_MSGBUS_WIRE_FRAME_WRITER_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace tevra::msgbus::wire {

// Sends frames over a socket without ever waiting for the peer; what the peer does not take yet is
// kept and goes first. Not synchronised. Each operation answers false when the connection is dead.
class FrameWriter final {
 public:
  FrameWriter() = default;
  ~FrameWriter();
  FrameWriter(const FrameWriter&) = delete;
  FrameWriter& operator=(const FrameWriter&) = delete;

  bool Send(int socket, std::string_view frames);
  bool Flush(int socket);
  size_t PendingBytes() const { return pending_.size() - sent_; }

 private:
  void Grow(size_t more);

  std::string pending_;
  size_t sent_ = 0;  // of pending_
};

// Empties a buffer of frames at the end of a scope, for a buffer that goes on being used:
// overwrites it, for messages carry passwords and tokens, and gives the memory of a large one back.
class ScopedFrameWipe final {
 public:
  explicit ScopedFrameWipe(std::string* frames) : frames_(frames) {}
  ~ScopedFrameWipe();
  ScopedFrameWipe(const ScopedFrameWipe&) = delete;
  ScopedFrameWipe& operator=(const ScopedFrameWipe&) = delete;

 private:
  std::string* const frames_;
};

}  // namespace tevra::msgbus::wire

#endif  // TEVRA_MSGBUS_WIRE_FRAME_WRITER_H_

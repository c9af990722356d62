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
  bool Send(int socket, std::string_view frames);
  bool Flush(int socket);
  size_t PendingBytes() const { return pending_.size() - sent_; }

 private:
  std::string pending_;
  size_t sent_ = 0;  // of pending_
};

}  // namespace tevra::msgbus::wire

#endif  // TEVRA_MSGBUS_WIRE_FRAME_WRITER_H_

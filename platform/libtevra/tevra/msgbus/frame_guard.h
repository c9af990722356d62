#ifndef TEVRA_MSGBUS_FRAME_GUARD_H_
#define TEVRA_MSGBUS_FRAME_GUARD_H_

#include <cstddef>

namespace tevra::msgbus {

// Looks at a socket before sd-bus reads from it and stops a message that is too long at its header:
// sd-bus itself would take 128 MiB into memory before anybody could refuse it. It can, because
// sd-bus never reads beyond the end of a message once a connection has been authenticated.
class FrameGuard final {
 public:
  enum class Verdict {
    kRead,     // let sd-bus read
    kNothing,  // nothing there
    kPartial,  // the beginning of a header; wait for more
    kRefuse,   // too long, no D-Bus header, or the end of the stream
  };

  explicit FrameGuard(size_t max_message_bytes) : max_message_bytes_(max_message_bytes) {}

  Verdict Look(int fd);
  // For a server's connection that is being authenticated. The client may have sent its first
  // message right behind the handshake; it is judged then too.
  Verdict LookAtHandshake(int fd);
  // A server's connection has been authenticated; false when its first message was not judged.
  bool HandshakeWasSeen() const { return handshake_seen_; }
  // sd-bus has delivered a message whole.
  void MessageEnded() { inside_message_ = false; }

 private:
  Verdict Judge(const unsigned char* header);

  const size_t max_message_bytes_;
  bool inside_message_ = false;
  bool handshake_seen_ = false;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_FRAME_GUARD_H_

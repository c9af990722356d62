#ifndef TEVRA_MSGBUS_FRAME_GUARD_H_
#define TEVRA_MSGBUS_FRAME_GUARD_H_

#include <cstddef>

namespace tevra::msgbus {

// Looks at a socket before sd-bus reads from it and stops a message that is too long at its header:
// sd-bus itself would take 128 MiB into memory before anybody could refuse it. It can, because
// sd-bus never reads beyond the end of a message once a connection has been authenticated. sd-bus
// also skips a malformed message without a word; the guard notices that, for it must know where the
// next message begins.
class FrameGuard final {
 public:
  enum class Verdict {
    kRead,     // let sd-bus read
    kNothing,  // nothing there
    kPartial,  // the beginning of a header; wait for more
    kRefuse,   // too long, no D-Bus header, or the end of the stream
  };

  explicit FrameGuard(size_t max_message_bytes) : max_message_bytes_(max_message_bytes) {}

  // `reads_for_sure`: sd-bus has nothing else to do first.
  Verdict Look(int fd, bool reads_for_sure);
  // The same, but waits for the next message as long as the socket's receive time-out allows. Not
  // inside a message, and sd-bus must have nothing else to do.
  Verdict Await(int fd);
  // For a server's connection that is being authenticated. The client may have sent its first
  // message right behind the handshake; it is judged then too.
  Verdict LookAtHandshake(int fd);
  bool IsInsideMessage() const { return inside_message_; }
  // A server's connection has been authenticated; false when its first message was not judged.
  bool HandshakeWasSeen() const { return handshake_seen_; }
  // sd-bus has delivered a message whole.
  void MessageEnded(int fd);
  // Whether sd-bus, allowed to read, has come to the end of a message and delivered none.
  bool MessageWasSkipped(int fd) const;

 private:
  Verdict Judge(int fd, bool reads_for_sure, int receive_flags);
  bool IsTooLong(const unsigned char* header, size_t* length) const;
  void Enter(int fd, bool whole, size_t length);

  const size_t max_message_bytes_;
  bool inside_message_ = false;
  bool tracked_ = false;  // the socket's peek offset is at the message's end
  bool handshake_seen_ = false;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_FRAME_GUARD_H_

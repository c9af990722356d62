#include "tevra/msgbus/frame_guard.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string_view>

namespace tevra::msgbus {
namespace {

constexpr size_t kHeaderBytes = 16;
constexpr size_t kPeekBytes = 512;
constexpr size_t kHandshakeBytes = 1024;
constexpr std::string_view kHandshakeEnd = "BEGIN\r\n";

// Bytes waiting in the socket, at most `size`; 0 at the end of the stream, -1 for none yet, -2 for
// a broken connection.
ssize_t Peek(int fd, void* buffer, size_t size, int receive_flags) {
  const ssize_t count = recv(fd, buffer, size, MSG_PEEK | receive_flags);
  if (count >= 0) return count;
  return errno == EAGAIN || errno == EINTR ? -1 : -2;
}

uint64_t LoadLength(const unsigned char* bytes, bool little_endian) {
  uint64_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = value << 8 | bytes[little_endian ? 3 - i : i];
  return value;
}

}  // namespace

FrameGuard::Verdict FrameGuard::Look(int fd, bool reads_for_sure) {
  return inside_message_ ? Verdict::kRead : Judge(fd, reads_for_sure, MSG_DONTWAIT);
}

FrameGuard::Verdict FrameGuard::Await(int fd) {
  return Judge(fd, true, 0);
}

FrameGuard::Verdict FrameGuard::Judge(int fd, bool reads_for_sure, int receive_flags) {
  std::array<unsigned char, kPeekBytes> bytes;
  const ssize_t count = Peek(fd, bytes.data(), bytes.size(), receive_flags);
  if (count == -1) return Verdict::kNothing;
  if (count <= 0) return Verdict::kRefuse;
  const auto available = static_cast<size_t>(count);
  if (available < kHeaderBytes) return Verdict::kPartial;
  size_t length = 0;
  if (IsTooLong(bytes.data(), &length)) return Verdict::kRefuse;
  Enter(fd, reads_for_sure && length <= available, length);
  return Verdict::kRead;
}

FrameGuard::Verdict FrameGuard::LookAtHandshake(int fd) {
  if (handshake_seen_) return Look(fd, false);
  std::array<unsigned char, kHandshakeBytes> bytes;
  const ssize_t count = Peek(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (count == -1) return Verdict::kNothing;
  if (count <= 0) return Verdict::kRefuse;
  const std::string_view seen(reinterpret_cast<const char*>(bytes.data()),
                              static_cast<size_t>(count));
  const size_t end = seen.find(kHandshakeEnd);
  if (end == std::string_view::npos) return Verdict::kRead;
  handshake_seen_ = true;
  const size_t message = end + kHandshakeEnd.size();
  if (message == seen.size()) return Verdict::kRead;
  // Clients write a header in one piece, so a piece of one is nobody we want to talk to.
  if (seen.size() - message < kHeaderBytes) return Verdict::kRefuse;
  size_t length = 0;
  if (IsTooLong(bytes.data() + message, &length)) return Verdict::kRefuse;
  Enter(fd, false, message + length);
  return Verdict::kRead;
}

void FrameGuard::MessageEnded(int fd) {
  inside_message_ = false;
  if (!tracked_) return;
  tracked_ = false;
  const int off = -1;
  setsockopt(fd, SOL_SOCKET, SO_PEEK_OFF, &off, sizeof off);
}

bool FrameGuard::MessageWasSkipped(int fd) const {
  if (!inside_message_) return false;
  if (!tracked_) return true;
  int left = -1;
  socklen_t size = sizeof left;
  return getsockopt(fd, SOL_SOCKET, SO_PEEK_OFF, &left, &size) == 0 && left == 0;
}

bool FrameGuard::IsTooLong(const unsigned char* header, size_t* length) const {
  const bool little_endian = header[0] == 'l';
  if (!little_endian && header[0] != 'B') return true;
  const uint64_t body = LoadLength(header + 4, little_endian);
  const uint64_t fields = LoadLength(header + 12, little_endian);
  // The body begins at a multiple of eight.
  *length = kHeaderBytes + (fields + 7) / 8 * 8 + body;
  return kHeaderBytes + fields + body > max_message_bytes_;
}

// The kernel moves a socket's peek offset back by what is read, so put at a message's end it tells
// how much of the message is left. That is asked only when the message was not there whole.
void FrameGuard::Enter(int fd, bool whole, size_t length) {
  inside_message_ = true;
  tracked_ = !whole;
  if (whole) return;
  const int end = static_cast<int>(length);
  setsockopt(fd, SOL_SOCKET, SO_PEEK_OFF, &end, sizeof end);
}

}  // namespace tevra::msgbus

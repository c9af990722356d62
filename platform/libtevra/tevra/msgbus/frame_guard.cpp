#include "tevra/msgbus/frame_guard.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string_view>

namespace tevra::msgbus {
namespace {

constexpr size_t kHeaderBytes = 16;
constexpr size_t kHandshakeBytes = 1024;
constexpr std::string_view kHandshakeEnd = "BEGIN\r\n";

// Bytes waiting in the socket, at most `size`; 0 at the end of the stream, -1 for none yet, -2 for
// a broken connection.
ssize_t Peek(int fd, void* buffer, size_t size) {
  const ssize_t count = recv(fd, buffer, size, MSG_PEEK | MSG_DONTWAIT);
  if (count >= 0) return count;
  return errno == EAGAIN || errno == EINTR ? -1 : -2;
}

uint64_t LoadLength(const unsigned char* bytes, bool little_endian) {
  uint64_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = value << 8 | bytes[little_endian ? 3 - i : i];
  return value;
}

}  // namespace

FrameGuard::Verdict FrameGuard::Look(int fd) {
  if (inside_message_) return Verdict::kRead;
  std::array<unsigned char, kHeaderBytes> header;
  const ssize_t count = Peek(fd, header.data(), header.size());
  if (count == -1) return Verdict::kNothing;
  if (count <= 0) return Verdict::kRefuse;
  if (static_cast<size_t>(count) < header.size()) return Verdict::kPartial;
  return Judge(header.data());
}

FrameGuard::Verdict FrameGuard::LookAtHandshake(int fd) {
  if (handshake_seen_) return Look(fd);
  std::array<unsigned char, kHandshakeBytes> bytes;
  const ssize_t count = Peek(fd, bytes.data(), bytes.size());
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
  return Judge(bytes.data() + message);
}

FrameGuard::Verdict FrameGuard::Judge(const unsigned char* header) {
  const bool little_endian = header[0] == 'l';
  if (!little_endian && header[0] != 'B') return Verdict::kRefuse;
  const uint64_t body = LoadLength(header + 4, little_endian);
  const uint64_t fields = LoadLength(header + 12, little_endian);
  if (kHeaderBytes + body + fields > max_message_bytes_) return Verdict::kRefuse;
  inside_message_ = true;
  return Verdict::kRead;
}

}  // namespace tevra::msgbus

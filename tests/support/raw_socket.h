#ifndef SUPPORT_RAW_SOCKET_H_
#define SUPPORT_RAW_SOCKET_H_

#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tevra/msgbus/msg_bus_msg.h"
#include "tevra/msgbus/wire/frame.h"
#include "tevra/msgbus/wire/handshake.h"

namespace support {

namespace wire = tevra::msgbus::wire;

// A stream socket that speaks bytes of the test's choice. Every wait is bounded.
class RawSocket {
 public:
  explicit RawSocket(int fd) : fd_(fd) {}
  RawSocket(RawSocket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  RawSocket& operator=(RawSocket&& other) noexcept {
    Close();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  ~RawSocket() { Close(); }

  static RawSocket ConnectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    return RawSocket(fd);
  }

  // Connects as another user, which only root can. The kernel notes who called connect, and a
  // system call by itself changes the identity of one thread only.
  static RawSocket ConnectAs(const std::string& path, uid_t uid, const std::vector<gid_t>& groups) {
    RawSocket connected(-1);
    std::thread([&] {
      if (syscall(SYS_setgroups, groups.size(), groups.data()) == 0 &&
          syscall(SYS_setresgid, -1, uid, -1) == 0 && syscall(SYS_setresuid, -1, uid, -1) == 0) {
        connected = ConnectTo(path);
      }
    }).join();
    return connected;
  }

  void Close() {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }
  bool Write(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t count = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (count <= 0) return false;
      done += static_cast<size_t>(count);
    }
    return true;
  }
  // The next frame without its length; empty when the peer closes or breaks off.
  std::string ReadFrame() {
    const std::string length = ReadBytes(wire::kLengthBytes);
    return length.empty() ? "" : ReadBytes(wire::LoadNumber(length.data()));
  }
  // Whether the peer has closed the connection within ten seconds; what it still said is dropped.
  bool PeerCloses() {
    for (;;) {
      char buffer[65536];
      pollfd descriptor{fd_, POLLIN, 0};
      if (poll(&descriptor, 1, 10000) != 1) return false;
      if (read(fd_, buffer, sizeof buffer) <= 0) return true;
    }
  }
  int fd() const { return fd_; }

 private:
  std::string ReadBytes(size_t count) {
    std::string bytes(count, '\0');
    for (size_t got = 0; got < count;) {
      pollfd descriptor{fd_, POLLIN, 0};
      if (poll(&descriptor, 1, 10000) != 1) return "";
      const ssize_t some = read(fd_, bytes.data() + got, count - got);
      if (some <= 0) return "";
      got += static_cast<size_t>(some);
    }
    return bytes;
  }

  int fd_;
};

// A whole frame, as it goes over the wire.
inline std::string RawFrame(const wire::Frame& frame,
                            const std::vector<tevra::msgbus::MsgBusMsg::Value>& values = {}) {
  std::string bytes;
  wire::AppendFrame(&bytes, frame, values);
  return bytes;
}
inline std::string RawHello(uint8_t flags = 0) {
  return RawFrame(wire::Hello(flags));
}
inline std::string RawCall(const std::string& interface, const std::string& member,
                           const std::vector<tevra::msgbus::MsgBusMsg::Value>& values = {}) {
  return RawFrame({wire::Kind::kCall, 0, 1, interface, member, {}}, values);
}
// The length of a frame, and nothing of the frame.
inline std::string RawLength(uint32_t length) {
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(length >> shift);
  return bytes;
}

}  // namespace support

#endif  // SUPPORT_RAW_SOCKET_H_

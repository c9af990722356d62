#ifndef MSGBUS_RAW_SOCKET_H_
#define MSGBUS_RAW_SOCKET_H_

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

namespace tevra::msgbus {

// A stream socket that speaks bytes of the test's choice. Every wait is bounded.
class RawSocket {
 public:
  explicit RawSocket(int fd) : fd_(fd) {}
  RawSocket(RawSocket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ~RawSocket() { Close(); }

  static RawSocket ConnectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    return RawSocket(fd);
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
  // What comes until `end` has come or the peer closes.
  std::string ReadUntil(const std::string& end) {
    std::string bytes;
    while (bytes.find(end) == std::string::npos) {
      char buffer[4096];
      pollfd descriptor{fd_, POLLIN, 0};
      if (poll(&descriptor, 1, 10000) != 1) break;
      const ssize_t count = read(fd_, buffer, sizeof buffer);
      if (count <= 0) break;
      bytes.append(buffer, static_cast<size_t>(count));
    }
    return bytes;
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
  int fd_;
};

// A fixed header of the given lengths, in little-endian form.
inline std::string RawHeader(uint32_t body, uint32_t fields) {
  std::string header = {'l', 1, 0, 1};
  for (uint32_t value : {body, 1u, fields}) {
    for (int shift = 0; shift < 32; shift += 8) header += static_cast<char>(value >> shift);
  }
  return header;
}

// A whole call without arguments, as it goes over the wire.
inline std::string RawCall(const std::string& interface, const std::string& member) {
  std::string fields;
  const auto text = [&fields](char code, char type, const std::string& value) {
    fields.resize((fields.size() + 7) / 8 * 8);
    fields += {code, 1, type, 0, static_cast<char>(value.size()), 0, 0, 0};
    fields += value + '\0';
  };
  text(1, 'o', "/p");
  text(2, 's', interface);
  text(3, 's', member);
  std::string call = RawHeader(0, static_cast<uint32_t>(fields.size())) + fields;
  call.resize((call.size() + 7) / 8 * 8);
  return call;
}

}  // namespace tevra::msgbus

#endif  // MSGBUS_RAW_SOCKET_H_

#ifndef SUPPORT_HTTP_CONNECTION_H_
#define SUPPORT_HTTP_CONNECTION_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "support/program.h"

namespace support {

// A connection to "127.0.0.1:12345", from an address of this machine's own if one is given. What is
// received on it comes within 20 seconds or not at all.
inline Fd ConnectTo(const std::string& host_and_port, const char* from = "") {
  const size_t colon = host_and_port.find(':');
  const auto loopback = [](const std::string& host, int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
  };
  Fd connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in source = loopback(from, 0);
  const sockaddr_in target =
      loopback(host_and_port.substr(0, colon), std::stoi(host_and_port.substr(colon + 1)));
  if (*from != '\0' &&
      bind(connection.Get(), reinterpret_cast<const sockaddr*>(&source), sizeof(source)) != 0) {
    throw std::runtime_error("bind");
  }
  if (connect(connection.Get(), reinterpret_cast<const sockaddr*>(&target), sizeof(target)) != 0) {
    throw std::runtime_error("no connection");
  }
  const timeval patience = {20, 0};
  setsockopt(connection.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  const int on = 1;
  setsockopt(connection.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  return connection;
}

// A keep-alive connection of a client that does not wait for one answer before its next request.
class HttpConnection {
 public:
  explicit HttpConnection(const std::string& host_and_port, const char* from = "")
      : connection_(ConnectTo(host_and_port, from)) {}

  void Send(const std::string& bytes) const {
    size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t n =
          send(connection_.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) throw std::runtime_error("the server ended the connection");
      sent += static_cast<size_t>(n);
    }
  }
  // The next answer, head and body; empty when the connection has ended.
  std::string Receive() {
    size_t head = 0;
    while ((head = received_.find("\r\n\r\n")) == std::string::npos) {
      if (!ReceiveMore()) return "";
    }
    const size_t length = received_.find("\r\nContent-Length: ");
    const size_t body =
        length < head ? std::strtoul(received_.c_str() + length + 18, nullptr, 10) : 0;
    while (received_.size() < head + 4 + body) {
      if (!ReceiveMore()) return "";
    }
    std::string answer = received_.substr(0, head + 4 + body);
    received_.erase(0, answer.size());
    return answer;
  }
  std::string Ask(const std::string& request) {
    Send(request);
    return Receive();
  }

 private:
  bool ReceiveMore() {
    char bytes[65536];
    const ssize_t n = recv(connection_.Get(), bytes, sizeof(bytes), 0);
    if (n > 0) received_.append(bytes, static_cast<size_t>(n));
    return n > 0;
  }

  const Fd connection_;
  std::string received_;
};

}  // namespace support

#endif  // SUPPORT_HTTP_CONNECTION_H_

#ifndef BENCHMARKS_SUPPORT_DIGEST_LOAD_H_
#define BENCHMARKS_SUPPORT_DIGEST_LOAD_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "benchmarks/support/md5_hex.h"
#include "support/program.h"

namespace benchmarks {

// Whom to log on as, and what to get.
struct DigestTask {
  std::string host;  // "127.0.0.1:12345"
  std::string target;
  size_t bytes = 0;  // that the target has
  std::string user;
  std::string realm;
  std::string password;
  bool with_cookie = false;  // after the first logon, the session cookie instead of digests
};

// The nonce's next count. libmicrohttpd hands out one nonce to all who ask within a second, on
// whatever connection, and tells them apart by the counts.
inline unsigned NextCount(const std::string& nonce) {
  static std::map<std::string, unsigned> counts;
  return ++counts[nonce];
}

// One keep-alive connection: answers the challenge once, then signs every request with the next
// count. A nonce that the server calls stale is changed for the new one.
class DigestConnection {
 public:
  explicit DigestConnection(const DigestTask& task)
      : task_(task),
        ha1_(Md5Hex(task.user + ":" + task.realm + ":" + task.password)),
        ha2_(Md5Hex("GET:" + task.target)) {
    Connect();
  }

  int Socket() const { return socket_.Get(); }
  void Send() {
    const std::string request = "GET " + task_.target + " HTTP/1.1\r\nHost: " + task_.host +
                                "\r\n" + Credentials() + "\r\n";
    if (send(socket_.Get(), request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size())) {
      throw std::runtime_error("send");
    }
  }
  // Takes what has come. True when it was the file; a challenge is answered and waited for again.
  bool Receive() {
    char bytes[65536];
    const ssize_t n = recv(socket_.Get(), bytes, sizeof(bytes), 0);
    if (n <= 0) throw std::runtime_error("the server closed a connection");
    received_.append(bytes, static_cast<size_t>(n));
    const size_t head = received_.find("\r\n\r\n");
    if (head == std::string::npos) return false;
    const size_t body = ContentLength(head);
    if (received_.size() < head + 4 + body) return false;
    const bool granted = received_.compare(0, 13, "HTTP/1.1 200 ") == 0;
    if (granted) {
      TakeCookie(head);
      refusals_ = 0;
    } else {
      TakeChallenge(head);
      Send();
    }
    received_.erase(0, head + 4 + body);
    if (granted && (body != task_.bytes || !received_.empty())) {
      throw std::runtime_error("not the file");
    }
    return granted;
  }

 private:
  void Connect() {
    const size_t colon = task_.host.find(':');
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(task_.host.substr(colon + 1))));
    inet_pton(AF_INET, task_.host.substr(0, colon).c_str(), &address.sin_addr);
    socket_ = support::Fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("connect");
    }
    const int on = 1;
    setsockopt(socket_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  std::string Credentials() {
    if (!cookie_.empty()) return "Cookie: " + cookie_ + "\r\n";
    if (nonce_.empty()) return "";
    char nc[9];
    snprintf(nc, sizeof(nc), "%08x", NextCount(nonce_));
    const std::string response =
        Md5Hex(ha1_ + ":" + nonce_ + ":" + nc + ":" + kCnonce + ":auth:" + ha2_);
    return "Authorization: Digest username=\"" + task_.user + "\", realm=\"" + task_.realm +
           "\", nonce=\"" + nonce_ + "\", uri=\"" + task_.target +
           "\", algorithm=MD5, qop=auth, nc=" + nc + ", cnonce=\"" + kCnonce + "\", response=\"" +
           response + "\"" + opaque_ + "\r\n";
  }
  // The quoted value that follows the text in the answer's head.
  std::string After(std::string_view text, size_t head) const {
    const size_t at = received_.find(text);
    if (at == std::string::npos || at > head) return "";
    const size_t from = at + text.size();
    return received_.substr(from, received_.find_first_of("\";\r", from) - from);
  }
  size_t ContentLength(size_t head) const {
    const std::string length = After("ontent-Length: ", head);
    if (length.empty()) throw std::runtime_error("no length");
    return std::stoul(length);
  }
  void TakeChallenge(size_t head) {
    // libmicrohttpd calls counts that overtook each other wrong, and not stale: then once more.
    if (received_.compare(0, 13, "HTTP/1.1 401 ") != 0 || ++refusals_ > kRefusals) {
      throw std::runtime_error("refused: " + received_.substr(0, head));
    }
    nonce_ = After("nonce=\"", head);
    const std::string opaque = After("opaque=\"", head);
    if (!opaque.empty()) opaque_ = ", opaque=\"" + opaque + "\"";
  }
  void TakeCookie(size_t head) {
    if (task_.with_cookie && cookie_.empty()) cookie_ = After("Set-Cookie: ", head);
  }

  static constexpr int kRefusals = 4;  // in a row
  static constexpr const char* kCnonce = "0a4f113b0a4f113b";

  const DigestTask& task_;
  const std::string ha1_;
  const std::string ha2_;
  support::Fd socket_;
  std::string nonce_;
  std::string opaque_;
  std::string cookie_;
  int refusals_ = 0;
  std::string received_;
};

// A number of connections, each with one request under way at any time, driven by one thread.
// Throws std::runtime_error when a server answers with anything but the file or a challenge.
class DigestLoad {
 public:
  DigestLoad(const DigestTask& task, size_t connections) : task_(task) {
    epoll_ = support::Fd(epoll_create1(EPOLL_CLOEXEC));
    for (size_t i = 0; i < connections; ++i) {
      connections_.push_back(std::make_unique<DigestConnection>(task_));
      DigestConnection& connection = *connections_.back();
      epoll_event event = {};
      event.events = EPOLLIN;
      event.data.ptr = &connection;
      epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, connection.Socket(), &event);
      connection.Send();
    }
    // Logged on everywhere before anything is measured.
    for (size_t i = 0; i < 2 * connections; ++i) GetOne();
  }

  // Waits for the next answer of any connection, and asks again on it.
  void GetOne() {
    while (true) {
      epoll_event event = {};
      const int ready = epoll_wait(epoll_.Get(), &event, 1, 20000);
      if (ready < 0 && errno == EINTR) continue;
      if (ready != 1) throw std::runtime_error("no answer");
      auto* connection = static_cast<DigestConnection*>(event.data.ptr);
      if (!connection->Receive()) continue;
      connection->Send();
      return;
    }
  }

 private:
  const DigestTask task_;
  support::Fd epoll_;
  std::vector<std::unique_ptr<DigestConnection>> connections_;
};

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_DIGEST_LOAD_H_

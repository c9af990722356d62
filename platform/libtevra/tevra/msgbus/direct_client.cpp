#include "tevra/msgbus/direct_client.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "tevra/msgbus/destination_socket.h"
#include "tevra/msgbus/peer_credentials.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

timeval TimeLeft(Deadline deadline) {
  using std::chrono::microseconds;
  const auto left =
      std::chrono::duration_cast<microseconds>(deadline - std::chrono::steady_clock::now());
  // Zero would mean to wait for ever.
  const int64_t count = std::max<int64_t>(left.count(), 1);
  return {static_cast<time_t>(count / 1000000), static_cast<suseconds_t>(count % 1000000)};
}

}  // namespace

DirectClient::DirectClient(const BusConfig& config) : config_(config) {}

std::unique_ptr<MsgBusMsg> DirectClient::Call(const MsgBusMsg& message, Deadline deadline) {
  std::unique_ptr<MsgBusMsg> reply;
  Send(message, deadline, true, &reply);
  return reply;
}

void DirectClient::Post(const MsgBusMsg& message, Deadline deadline) {
  Send(message, deadline, false, nullptr);
}

bool DirectClient::HasServer(const std::string& name) const {
  const sockaddr_un address =
      DestinationSocket::AddressOf(DestinationSocket::PathOf(config_.runtime_dir, name));
  const BusFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) throw osa::Exception("message bus: no socket: %s", strerror(errno));
  // A full backlog is a listener's too.
  return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
         errno == EAGAIN;
}

void DirectClient::Send(const MsgBusMsg& message, Deadline deadline, bool expects_reply,
                        std::unique_ptr<MsgBusMsg>* reply) {
  const std::string& name = message.GetDestination();
  if (MessageCodec::WireSize(message) > config_.max_message_bytes) {
    throw osa::Exception("message bus: the message to %s is too long", name.c_str());
  }
  PoolOf(name).With(deadline, [&](ConnectionPool::Lease& lease) {
    BusLink& link = lease.link();
    const MessagePtr wire = MessageCodec::EncodeCall(link.bus(), message, "", expects_reply);
    MessagePtr answer;
    lease.Check(expects_reply ? link.Call(wire.get(), deadline, &answer)
                              : link.SendAndFlush(wire.get(), deadline),
                name.c_str());
    if (reply) {
      *reply = MessageCodec::DecodeAnswer(answer.get(), config_.max_message_bytes, message);
    }
  });
}

ConnectionPool& DirectClient::PoolOf(const std::string& name) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = pools_.find(name);
  if (found != pools_.end()) return *found->second;
  DestinationSocket::CheckName(name);
  auto pool = std::make_unique<ConnectionPool>(
      config_.pool_size, [this, name](Deadline deadline) { return Connect(name, deadline); });
  return *pools_.emplace(name, std::move(pool)).first->second;
}

ConnectionPool::Connection DirectClient::Connect(const std::string& name, Deadline deadline) const {
  const sockaddr_un address =
      DestinationSocket::AddressOf(DestinationSocket::PathOf(config_.runtime_dir, name));
  BusFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval left = TimeLeft(deadline);
  // The send time-out is what bounds a connect that waits for room in the server's backlog.
  if (!socket || setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &left, sizeof left) != 0 ||
      connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      fcntl(socket.get(), F_SETFL, O_NONBLOCK) != 0) {
    throw osa::Exception("message bus: no server for %s: %s", name.c_str(), strerror(errno));
  }
  const uid_t uid = PeerCredentials(socket.get()).uid;
  if (!config_.Trusts(uid)) {
    throw osa::Exception("message bus: %s refused: it is served by user %u", name.c_str(), uid);
  }
  ConnectionPool::Connection connection;
  connection.link = std::make_unique<BusLink>(std::move(socket), BusLink::Side::kClient,
                                              config_.max_message_bytes);
  return connection;
}

}  // namespace tevra::msgbus

#include "tevra/msgbus/direct/direct_client.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/direct/destination_socket.h"
#include "tevra/osa/descriptor.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {

DirectClient::DirectClient(const BusConfig& config) : config_(config) {}

std::unique_ptr<MsgBusMsg> DirectClient::Call(const MsgBusMsg& message, Deadline deadline) {
  std::unique_ptr<MsgBusMsg> answer;
  try {
    PoolFor(message).With(deadline, [&](Pool::Lease& lease) {
      lease.Check(lease->Call(message, deadline, &answer), message.GetDestination().c_str());
    });
  } catch (const ConnectionRefused& refusal) {
    if (refusal.error_name() != BusError::kAccessDenied) throw;
    answer = std::make_unique<MsgBusMsg>(
        MsgBusMsg::ErrorTo(message, refusal.error_name(), refusal.text()));
  }
  return answer;
}

void DirectClient::Post(const MsgBusMsg& message, Deadline deadline) {
  PoolFor(message).With(deadline, [&](Pool::Lease& lease) {
    lease.Check(lease->Post(message, deadline), message.GetDestination().c_str());
  });
}

bool DirectClient::HasServer(const std::string& name) const {
  const sockaddr_un address =
      DestinationSocket::AddressOf(DestinationSocket::PathOf(config_.runtime_dir, name));
  const osa::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) throw osa::Exception("message bus: no socket: %s", strerror(errno));
  // A full backlog is a listener's too.
  return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
         errno == EAGAIN;
}

bool DirectClient::CloseIdle(std::chrono::steady_clock::time_point since) {
  const std::lock_guard<std::mutex> lock(mutex_);
  bool others = false;
  for (const auto& [name, pool] : pools_) others = pool->CloseIdle(since) || others;
  return others;
}

DirectClient::Pool& DirectClient::PoolFor(const MsgBusMsg& message) {
  const std::string& name = message.GetDestination();
  if (message.Size() > config_.max_message_bytes) {
    throw osa::Exception("message bus: the message to %s is too long", name.c_str());
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = pools_.find(name);
  if (found != pools_.end()) return *found->second;
  DestinationSocket::CheckName(name);
  auto pool = std::make_unique<Pool>(config_.pool_size, [this, name](Deadline deadline) {
    return std::make_unique<ClientConnection>(config_, name, deadline);
  });
  return *pools_.emplace(name, std::move(pool)).first->second;
}

}  // namespace tevra::msgbus

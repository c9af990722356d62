#include "tevra/msgbus/direct_server.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "tevra/core/logger.h"
#include "tevra/msgbus/destination_socket.h"
#include "tevra/msgbus/peer_credentials.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr std::chrono::milliseconds kAcceptPause{100};
constexpr int kAcceptsAtOnce = 16;

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("MsgBus");
  return logger;
}

// Starting to speak may fail as well.
BusLink::Progress Advance(BusLink& link) {
  try {
    return link.Advance();
  } catch (const osa::Exception&) {
    return BusLink::Progress::kDead;
  }
}

}  // namespace

DirectServer::DirectServer(const BusConfig& config, DispatchThread& dispatch,
                           RequestDispatcher& dispatcher)
    : config_(config), dispatch_(dispatch), dispatcher_(dispatcher) {}

DirectServer::~DirectServer() = default;

void DirectServer::Serve(const std::string& name) {
  if (Serves(name)) return;
  Listener listener;
  listener.socket =
      std::make_unique<DirectListener>(config_.runtime_dir, name, config_.socket_mode);
  listener.watch =
      dispatch_.Watch(listener.socket->fd(), EPOLLIN, [this, name](uint32_t) { Accept(name); });
  listeners_.emplace(name, std::move(listener));
}

void DirectServer::StopServing(const std::string& name) {
  const auto listener = listeners_.find(name);
  if (listener == listeners_.end()) return;
  dispatch_.Remove(listener->second.watch);
  listeners_.erase(listener);
  std::vector<ClientPtr> leaving;
  for (const auto& [watch, client] : clients_) {
    if (client->destination == name) leaving.push_back(client);
  }
  for (const ClientPtr& client : leaving) Drop(client);
}

void DirectServer::Broadcast(const MsgBusMsg& message) {
  std::vector<ClientPtr> receivers;
  for (const auto& [watch, client] : clients_) {
    if (client->subscribed) receivers.push_back(client);
  }
  const size_t size = MessageCodec::WireSize(message);
  for (const ClientPtr& client : receivers) {
    const MessagePtr wire = MessageCodec::EncodeSignal(client->link->bus(), message);
    if (client->link->Send(wire.get(), size)) {
      Refresh(client);
    } else {
      Drop(client);
    }
  }
}

void DirectServer::Accept(const std::string& name) {
  for (int i = 0; i < kAcceptsAtOnce; ++i) {
    const auto listener = listeners_.find(name);
    if (listener == listeners_.end()) return;
    BusFd socket(
        accept4(listener->second.socket->fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (socket) {
      Admit(std::move(socket), name);
      continue;
    }
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      Log()->Warning("%s: cannot accept: %s", name.c_str(), strerror(errno));
      const DispatchThread::Id watch = listener->second.watch;
      dispatch_.Modify(watch, 0);
      dispatch_.After(kAcceptPause, [this, watch] { dispatch_.Modify(watch, EPOLLIN); });
    }
    return;
  }
}

void DirectServer::Admit(BusFd socket, const std::string& name) {
  auto client = std::make_shared<Client>();
  client->credentials = PeerCredentials(socket.get());
  const uid_t uid = client->credentials.uid;
  const auto of_this_user = clients_of_.find(uid);
  if (clients_.size() >= config_.max_connections ||
      (of_this_user != clients_of_.end() &&
       of_this_user->second >= config_.max_connections_per_uid)) {
    Log()->Information("%s: too many connections, user %u refused", name.c_str(), uid);
    return;
  }
  client->destination = name;
  client->link = std::make_unique<BusLink>(std::move(socket), BusLink::Side::kServer,
                                           config_.max_message_bytes);
  client->events = EPOLLIN;
  const std::weak_ptr<Client> weak = client;
  client->watch = dispatch_.Watch(client->link->fd(), client->events, [this, weak](uint32_t) {
    if (const ClientPtr ready = weak.lock()) OnReady(ready);
  });
  client->handshake_timer = dispatch_.After(config_.handshake_timeout, [this, weak] {
    if (const ClientPtr late = weak.lock()) Drop(late);
  });
  clients_.emplace(client->watch, client);
  ++clients_of_[uid];
}

void DirectServer::OnReady(const ClientPtr& client) {
  do {
    if (Advance(*client->link) == BusLink::Progress::kDead) return Drop(client);
    if (const MessagePtr message = client->link->TakeIncoming()) {
      OnMessage(*client, message.get());
      if (client->dropped) return;
    }
  } while (client->link->HasQueuedInput());
  if (client->handshake_timer != 0 && client->link->IsReady()) {
    dispatch_.Cancel(std::exchange(client->handshake_timer, 0));
  }
  Refresh(client);
}

void DirectServer::OnMessage(Client& client, sd_bus_message* message) {
  uint8_t type = 0;
  if (sd_bus_message_get_type(message, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_CALL) return;
  if (sd_bus_message_is_method_call(message, DestinationSocket::kPeerInterface,
                                    DestinationSocket::kSubscribe) > 0) {
    return Subscribe(client, message);
  }
  // A dead connection shows at its next reading.
  dispatcher_.DispatchCall(*client.link, message, client.destination, client.credentials);
}

void DirectServer::Subscribe(Client& client, sd_bus_message* call) {
  client.subscribed = true;
  sd_bus_message* reply = nullptr;
  if (sd_bus_message_new_method_return(call, &reply) < 0) return;
  const MessagePtr owned(reply);
  client.link->Send(reply, 0);
}

void DirectServer::Refresh(const ClientPtr& client) {
  if (client->dropped) return;
  if (client->link->QueuedBytes() > config_.max_output_bytes) {
    Log()->Information("%s: user %u does not read, connection dropped", client->destination.c_str(),
                       client->credentials.uid);
    return Drop(client);
  }
  uint32_t events = client->link->Events();
  if (client->link->WaitsForMore()) events |= EPOLLET;
  if (events == client->events) return;
  client->events = events;
  dispatch_.Modify(client->watch, events);
}

void DirectServer::Drop(const ClientPtr& client) {
  if (std::exchange(client->dropped, true)) return;
  if (client->link->IsClosed()) {
    dispatch_.Forget(client->watch);
  } else {
    dispatch_.Remove(client->watch);
  }
  if (client->handshake_timer != 0) dispatch_.Cancel(client->handshake_timer);
  const auto count = clients_of_.find(client->credentials.uid);
  if (--count->second == 0) clients_of_.erase(count);
  clients_.erase(client->watch);
}

}  // namespace tevra::msgbus

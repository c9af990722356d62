#include "tevra/msgbus/direct_watcher.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "tevra/core/logger.h"
#include "tevra/msgbus/destination_socket.h"
#include "tevra/msgbus/peer_credentials.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr std::chrono::seconds kSubscribeTime{5};
constexpr std::chrono::milliseconds kShortPause{20};  // the server is there but busy
constexpr std::chrono::milliseconds kLongPause{500};  // the server would not have us

}  // namespace

DirectWatcher::DirectWatcher(const BusConfig& config, DispatchThread& dispatch,
                             RequestDispatcher& dispatcher)
    : config_(config),
      dispatch_(dispatch),
      dispatcher_(dispatcher),
      directory_(dispatch, config.runtime_dir, [this] { TryAll(); }) {}

void DirectWatcher::Watch(const std::string& name) {
  auto& watched = watched_[name];
  if (watched) return;
  watched = std::make_unique<Watched>();
  watched->name = name;
  directory_.Start();
  Try(*watched);
}

void DirectWatcher::TryAll() {
  for (const auto& [name, watched] : watched_) Try(*watched);
}

void DirectWatcher::Try(Watched& watched) {
  if (watched.link) return;
  if (watched.timer != 0) dispatch_.Cancel(std::exchange(watched.timer, 0));
  const sockaddr_un address =
      DestinationSocket::AddressOf(DestinationSocket::PathOf(config_.runtime_dir, watched.name));
  BusFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (socket &&
      connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    try {
      return Open(watched, std::move(socket));
    } catch (const std::exception& failure) {
      core::Logger::GetLogger("MsgBus")->Information("%s: %s", watched.name.c_str(),
                                                     failure.what());
      watched.link.reset();
      return TryLater(watched, kLongPause);
    }
  }
  // Without a server the directory tells when to try again.
  if (errno == ENOENT || errno == ECONNREFUSED || errno == ENOTDIR) return;
  TryLater(watched, errno == EAGAIN ? kShortPause : kLongPause);
}

void DirectWatcher::TryLater(Watched& watched, std::chrono::milliseconds delay) {
  watched.timer = dispatch_.After(delay, [this, &watched] {
    watched.timer = 0;
    Try(watched);
  });
}

void DirectWatcher::Open(Watched& watched, BusFd socket) {
  watched.server = PeerCredentials(socket.get());
  if (!config_.Trusts(watched.server.uid)) {
    core::Logger::GetLogger("MsgBus")->Warning("%s refused: it is served by user %u",
                                               watched.name.c_str(), watched.server.uid);
    return TryLater(watched, kLongPause);
  }
  watched.subscribed = false;
  watched.link = std::make_unique<BusLink>(std::move(socket), BusLink::Side::kClient,
                                           config_.max_message_bytes);
  const MsgBusMsg subscribe(DestinationSocket::kPeerInterface, DestinationSocket::kSubscribe,
                            watched.name);
  const MessagePtr wire =
      MessageCodec::EncodeCall(watched.link->bus(), subscribe, watched.name, true);
  watched.link->Send(wire.get(), 0, &watched.subscription);
  watched.events = watched.link->Events();
  watched.watch = dispatch_.Watch(watched.link->fd(), watched.events,
                                  [this, &watched](uint32_t) { OnReady(watched); });
  watched.timer = dispatch_.After(kSubscribeTime, [this, &watched] {
    watched.timer = 0;
    Close(watched);
  });
}

void DirectWatcher::OnReady(Watched& watched) {
  do {
    if (watched.link->Advance() == BusLink::Progress::kDead) return Close(watched);
    if (const MessagePtr message = watched.link->TakeIncoming()) OnMessage(watched, message.get());
  } while (watched.link->HasQueuedInput());
  watched.link->QueuedBytes();
  uint32_t events = watched.link->Events();
  if (watched.link->WaitsForMore()) events |= EPOLLET;
  if (events == watched.events) return;
  watched.events = events;
  dispatch_.Modify(watched.watch, events);
}

void DirectWatcher::OnMessage(Watched& watched, sd_bus_message* message) {
  uint8_t type = 0;
  sd_bus_message_get_type(message, &type);
  if (type == SD_BUS_MESSAGE_SIGNAL) {
    dispatcher_.DispatchSignal(message, watched.server);
  } else if (type == SD_BUS_MESSAGE_METHOD_RETURN) {
    OnAnswer(watched, message);
  }
}

void DirectWatcher::OnAnswer(Watched& watched, sd_bus_message* answer) {
  uint64_t cookie = 0;
  if (watched.subscribed || sd_bus_message_get_reply_cookie(answer, &cookie) < 0 ||
      cookie != watched.subscription) {
    return;
  }
  watched.subscribed = true;
  dispatch_.Cancel(std::exchange(watched.timer, 0));
  dispatcher_.DispatchAppearance(watched.name);
}

void DirectWatcher::Close(Watched& watched) {
  dispatch_.Remove(watched.watch);
  if (watched.timer != 0) dispatch_.Cancel(std::exchange(watched.timer, 0));
  watched.link.reset();
  const bool subscribed = std::exchange(watched.subscribed, false);
  // Said also of a server that would not have us: calls may still reach it over other connections,
  // and of its changes nothing is heard.
  dispatcher_.DispatchVanishing(watched.name);
  // A server that let us in before may be back already; one that would not is left alone a while.
  if (subscribed) {
    Try(watched);
  } else {
    TryLater(watched, kLongPause);
  }
}

}  // namespace tevra::msgbus

#include "tevra/msgbus/direct/direct_watcher.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "tevra/core/logger.h"
#include "tevra/msgbus/direct/descriptor_passing.h"
#include "tevra/msgbus/direct/destination_socket.h"
#include "tevra/msgbus/direct/peer_credentials.h"
#include "tevra/msgbus/wire/frame_writer.h"
#include "tevra/msgbus/wire/handshake.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/file_identity.h"

namespace tevra::msgbus {
namespace {

constexpr std::chrono::seconds kWelcomeTime{5};
constexpr std::chrono::milliseconds kShortPause{20};  // the server is there but busy
constexpr std::chrono::milliseconds kLongPause{500};

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("MsgBus");
  return logger;
}

// The program may have closed the descriptor and have another file, or a call another connection,
// under its number by now.
std::shared_ptr<const osa::Descriptor> Keep(osa::Descriptor passed) {
  const osa::FileIdentity identity(passed.get());
  return {new osa::Descriptor(std::move(passed)), [identity](osa::Descriptor* kept) {
            if (!identity.IsOf(kept->get())) static_cast<void>(kept->Release());
            delete kept;
          }};
}

}  // namespace

DirectWatcher::DirectWatcher(const BusConfig& config, DispatchThread& dispatch,
                             Subscribers& subscribers)
    : config_(config),
      dispatch_(dispatch),
      subscribers_(subscribers),
      directory_(dispatch, config.runtime_dir, [this] { TryAll(); }) {}

void DirectWatcher::Watch(const std::string& name) {
  auto& watched = watched_[name];
  if (watched) return;
  watched = std::make_unique<Watched>();
  watched->name = name;
  directory_.Start();
  Try(*watched);
}

IMsgBus::Shared DirectWatcher::SharedBy(const std::string& name) const {
  IMsgBus::Shared shared;
  const auto found = watched_.find(name);
  if (found == watched_.end() || !found->second->welcome) return shared;
  shared.instance = found->second->instance;
  shared.descriptor = found->second->shared;
  return shared;
}

void DirectWatcher::TryAll() {
  for (const auto& [name, watched] : watched_) Try(*watched);
}

void DirectWatcher::Try(Watched& watched) {
  if (watched.socket) return;
  if (watched.timer != 0) dispatch_.Cancel(std::exchange(watched.timer, 0));
  const sockaddr_un address =
      DestinationSocket::AddressOf(DestinationSocket::PathOf(config_.runtime_dir, watched.name));
  OwnedSocket socket(
      osa::Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)));
  if (!socket ||
      connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return TryLater(watched, errno == EAGAIN ? kShortPause : kLongPause);
  }
  try {
    Open(watched, std::move(socket));
  } catch (const std::exception& failure) {
    Log()->Information("%s: %s", watched.name.c_str(), failure.what());
    watched.socket.Close();
    TryLater(watched, kLongPause);
  }
}

// The directory tells when a server comes, but not when a descriptor or memory becomes free.
void DirectWatcher::TryLater(Watched& watched, std::chrono::milliseconds delay) {
  watched.timer = dispatch_.After(delay, [this, &watched] {
    watched.timer = 0;
    Try(watched);
  });
}

void DirectWatcher::Open(Watched& watched, OwnedSocket socket) {
  watched.server = PeerCredentials(socket.get());
  if (!config_.Trusts(watched.server.uid)) {
    Log()->Warning("%s refused: it is served by user %u", watched.name.c_str(), watched.server.uid);
    return TryLater(watched, kLongPause);
  }
  std::string hello;
  wire::AppendFrame(&hello, wire::Hello(wire::kWantsBroadcasts), {});
  // A server that refuses does not wait for the hello, so its word may be there all the same.
  wire::FrameWriter().Send(socket.get(), hello);
  watched.welcome = false;
  watched.reader = std::make_unique<wire::FrameReader>(config_.max_message_bytes);
  watched.watch =
      dispatch_.Watch(socket.get(), EPOLLIN, [this, &watched](uint32_t) { OnReady(watched); });
  watched.socket = std::move(socket);
  watched.timer = dispatch_.After(kWelcomeTime, [this, &watched] {
    watched.timer = 0;
    Close(watched);
  });
}

void DirectWatcher::OnReady(Watched& watched) {
  if (!watched.socket.IsIntact() || !Read(watched)) return Close(watched);
  std::string_view body;
  for (;;) {
    switch (watched.reader->Next(&body)) {
      case wire::FrameReader::State::kNeedsMore:
        return;
      case wire::FrameReader::State::kTooLong:
        return Close(watched);
      case wire::FrameReader::State::kFrame:
        if (!OnFrame(watched, body)) return Close(watched);
    }
  }
}

bool DirectWatcher::Read(Watched& watched) {
  const std::span<char> space = watched.reader->Space();
  osa::Descriptor passed;
  const ssize_t count = ReceiveWithDescriptor(watched.socket.get(), space, &passed);
  if (passed) watched.shared = Keep(std::move(passed));
  if (count > 0) watched.reader->Took(static_cast<size_t>(count));
  return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

// False when the connection is of no use.
bool DirectWatcher::OnFrame(Watched& watched, std::string_view body) {
  const std::optional<wire::Frame> frame = wire::ParseBody(body);
  if (!frame) return false;
  if (!watched.welcome) return OnWelcome(watched, *frame);
  if (frame->kind != wire::Kind::kSignal) return false;
  MsgBusMsg signal(std::string(frame->interface), std::string(frame->member), "");
  signal.SetSerial(frame->serial);
  signal.SetSender(watched.server);
  if (!wire::ReadValues(frame->values, &signal)) return false;
  subscribers_.Signal(watched.name, signal);
  return true;
}

bool DirectWatcher::OnWelcome(Watched& watched, const wire::Frame& frame) {
  const wire::Welcome welcome = wire::ReadWelcome(frame);
  if (!welcome.error_name.empty()) {
    Log()->Information("%s refuses to be watched: %s", watched.name.c_str(),
                       welcome.error_text.c_str());
    return false;
  }
  // Lost on its way when no number is free here; tried again like any watch that cannot be had.
  if (welcome.has_descriptor != static_cast<bool>(watched.shared)) return false;
  watched.welcome = true;
  watched.instance = welcome.instance;
  dispatch_.Cancel(std::exchange(watched.timer, 0));
  subscribers_.Appeared(watched.name);
  return true;
}

void DirectWatcher::Close(Watched& watched) {
  dispatch_.Remove(watched.watch);
  if (watched.timer != 0) dispatch_.Cancel(std::exchange(watched.timer, 0));
  watched.socket.Close();
  watched.shared.reset();
  const bool was_welcome = std::exchange(watched.welcome, false);
  // Said also of a server that would not have us: calls may still reach it over other connections,
  // and of its changes nothing is heard.
  subscribers_.Vanished(watched.name);
  // A server that let us in before may be back already; one that would not is left alone a while.
  if (was_welcome) {
    Try(watched);
  } else {
    TryLater(watched, kLongPause);
  }
}

}  // namespace tevra::msgbus

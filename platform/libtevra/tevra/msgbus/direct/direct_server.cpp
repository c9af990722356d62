#include "tevra/msgbus/direct/direct_server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>
#include <vector>

#include "tevra/core/logger.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/direct/descriptor_passing.h"
#include "tevra/msgbus/direct/peer_credentials.h"
#include "tevra/msgbus/wire/frame_reader.h"
#include "tevra/msgbus/wire/frame_writer.h"
#include "tevra/msgbus/wire/handshake.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr std::chrono::milliseconds kAcceptPause{100};
constexpr int kAcceptsAtOnce = 16;

uint64_t NewInstance() {
  uint64_t instance = 0;
  while (instance == 0) {
    if (getrandom(&instance, sizeof instance, 0) != sizeof instance) {
      throw osa::Exception("message bus: no random number: %s", strerror(errno));
    }
  }
  return instance;
}

}  // namespace

// One connection. It is the request of which it waits.
class DirectServer::Client final : public RequestScheduler::Request,
                                   public std::enable_shared_from_this<Client> {
 public:
  Client(DirectServer& owner, osa::Descriptor accepted, std::string served_name, Credentials peer)
      : server(owner),
        socket(std::move(accepted)),
        destination(std::move(served_name)),
        credentials(std::move(peer)),
        reader(owner.config_.max_message_bytes) {}

  void Run() override { server.HandleCall(shared_from_this()); }
  bool ExpectsReply() const { return (call.flags & wire::kWantsNoReply) == 0; }

  DirectServer& server;
  osa::Descriptor socket;
  const std::string destination;
  const Credentials credentials;
  std::shared_ptr<RequestScheduler::Caller> caller;
  wire::FrameReader reader;
  wire::FrameWriter writer;
  wire::Frame call;      // waiting to be handled; lies in the reader
  bool waiting = false;  // whether there is one
  bool paused = false;   // more has come behind it, which is not read yet
  bool greeted = false;
  bool subscribed = false;
  bool dropped = false;
  DispatchThread::Id watch = 0;
  DispatchThread::Id timer = 0;  // until the hello or the rest of a frame must be there
  uint32_t events = EPOLLIN;
};

DirectServer::DirectServer(const BusConfig& config, DispatchThread& dispatch,
                           RequestDispatcher& dispatcher)
    : config_(config),
      dispatch_(dispatch),
      dispatcher_(dispatcher),
      instance_(NewInstance()),
      complaints_(core::Logger::GetLogger("MsgBus")) {
  dispatch_.AfterEvents([this] { return scheduler_.RunSome(); });
}

// A request that waits and its caller would hold each other, and the connection's descriptor, for
// ever.
DirectServer::~DirectServer() {
  for (const auto& [watch, client] : clients_) Forget(*client);
}

void DirectServer::Serve(const std::string& name) {
  if (Serves(name)) return;
  if (!admission_) admission_.emplace(config_);
  KeepReserve();
  Listener listener;
  listener.socket =
      std::make_unique<DirectListener>(config_.runtime_dir, name, config_.socket_mode);
  listener.watch = dispatch_.Watch(listener.socket->fd(), EPOLLIN, [this, name](uint32_t events) {
    if ((events & DispatchThread::kLost) == 0) Accept(name);
  });
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
  for (const ClientPtr& client : leaving) Drop(client, "");
}

void DirectServer::Broadcast(const MsgBusMsg& message) {
  std::vector<ClientPtr> receivers;
  for (const auto& [watch, client] : clients_) {
    if (client->subscribed) receivers.push_back(client);
  }
  if (receivers.empty()) return;
  std::string frame;
  wire::AppendFrame(
      &frame,
      {wire::Kind::kSignal, 0, message.Serial(), message.GetInterface(), message.GetName(), {}},
      message.Body());
  for (const ClientPtr& client : receivers) Send(client, frame);
}

void DirectServer::KeepReserve() {
  if (!reserve_) reserve_.Reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

void DirectServer::Accept(const std::string& name) {
  KeepReserve();
  for (int i = 0; i < kAcceptsAtOnce; ++i) {
    if (AcceptOne(name, false)) continue;
    const bool is_full = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
    if (!is_full) return;
    complaints_.Write(core::Logger::kWarning, 0, "accept",
                      name + ": cannot accept: " + strerror(errno));
    if (AcceptFromReserve(name)) continue;
    const auto listener = listeners_.find(name);
    if (listener == listeners_.end()) return;
    const DispatchThread::Id watch = listener->second.watch;
    dispatch_.Modify(watch, 0);
    dispatch_.After(kAcceptPause, [this, watch] { dispatch_.Modify(watch, EPOLLIN); });
    return;
  }
}

// False with errno when there is no connection to accept or it cannot be accepted.
bool DirectServer::AcceptOne(const std::string& name, bool is_last) {
  const auto listener = listeners_.find(name);
  errno = EAGAIN;
  if (listener == listeners_.end()) return false;
  osa::Descriptor socket(
      accept4(listener->second.socket->fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!socket) return false;
  Admit(std::move(socket), name, is_last);
  return true;
}

// With one descriptor in reserve, callers are still told why they are refused, and the owner is
// still let in, when the process has none left.
bool DirectServer::AcceptFromReserve(const std::string& name) {
  if (!reserve_) return false;
  reserve_.Reset();
  const bool accepted = AcceptOne(name, true);
  KeepReserve();
  return accepted;
}

void DirectServer::Admit(osa::Descriptor socket, const std::string& name, bool is_last) {
  Credentials caller = PeerCredentials(socket.get());
  // The last descriptor may have a low number: the reserve was opened before all others.
  if (const auto refusal = admission_->Enter(caller, is_last ? INT_MAX : socket.get())) {
    output_.clear();
    wire::AppendRefusal(&output_, refusal->error_name, refusal->text);
    wire::FrameWriter().Send(socket.get(), output_);
    complaints_.Write(core::Logger::kNotice, caller.uid, refusal->error_name,
                      name + ": a connection of user " + std::to_string(caller.uid) +
                          " refused: " + refusal->text);
    return;
  }
  auto client = std::make_shared<Client>(*this, std::move(socket), name, std::move(caller));
  client->caller = scheduler_.CallerOf(client->credentials);
  const std::weak_ptr<Client> weak = client;
  try {
    client->watch =
        dispatch_.Watch(client->socket.get(), client->events, [this, weak](uint32_t events) {
          if (const ClientPtr ready = weak.lock()) OnReady(ready, events);
        });
  } catch (...) {
    admission_->Leave(client->credentials);
    throw;
  }
  clients_.emplace(client->watch, client);
  GiveTime(client);
}

void DirectServer::OnReady(const ClientPtr& client, uint32_t events) {
  if (client->dropped) return;
  if ((events & DispatchThread::kLost) != 0) {
    static_cast<void>(client->socket.Release());
    return Drop(client, "");
  }
  if ((events & EPOLLOUT) != 0 && !client->writer.Flush(client->socket.get())) {
    return Drop(client, "");
  }
  if (client->waiting) {
    // Whoever has hung up no longer wants the answer: the work would be for no one.
    if ((events & (EPOLLHUP | EPOLLERR)) != 0 && client->ExpectsReply()) return Drop(client, "");
    client->paused = true;
  } else if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
    if (!Read(*client)) return Drop(client, "");
    TakeFrames(client);
  }
  Refresh(client);
}

bool DirectServer::Read(Client& client) {
  const std::span<char> space = client.reader.Space();
  const ssize_t count = recv(client.socket.get(), space.data(), space.size(), MSG_DONTWAIT);
  if (count > 0) client.reader.Took(static_cast<size_t>(count));
  return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

void DirectServer::TakeFrames(const ClientPtr& client) {
  while (!client->waiting) {
    std::string_view body;
    const wire::FrameReader::State state = client->reader.Next(&body);
    if (state == wire::FrameReader::State::kTooLong) return Drop(client, "too long a message");
    if (state == wire::FrameReader::State::kNeedsMore) {
      if (client->reader.HasMore()) GiveTime(client);
      return;
    }
    const std::string flaw = OnFrame(client, body);
    if (!flaw.empty()) return Drop(client, flaw);
  }
}

std::string DirectServer::OnFrame(const ClientPtr& client, std::string_view body) {
  if (client->timer != 0) dispatch_.Cancel(std::exchange(client->timer, 0));
  const std::optional<wire::Frame> frame = wire::ParseBody(body);
  if (!frame) return "malformed message";
  if (!client->greeted) return OnHello(*client, *frame);
  if (frame->kind != wire::Kind::kCall) return "a message that no client sends";
  client->call = *frame;
  client->waiting = true;
  const bool is_dear = dispatcher_.IsDear(frame->interface, frame->member);
  scheduler_.Add(client->caller, is_dear ? RequestScheduler::kDear : RequestScheduler::kCheap,
                 client);
  return "";
}

std::string DirectServer::OnHello(Client& client, const wire::Frame& hello) {
  const std::string flaw = wire::FlawOfHello(hello);
  if (flaw.empty()) {
    client.greeted = true;
    client.subscribed = (hello.flags & wire::kWantsBroadcasts) != 0;
    return SendWelcome(client) ? "" : "does not read";
  }
  output_.clear();
  wire::AppendRefusal(&output_, wire::kOtherVersion, flaw);
  client.writer.Send(client.socket.get(), output_);
  return flaw;
}

bool DirectServer::SendWelcome(Client& client) {
  const uint32_t roles = admission_->RolesOf(client.credentials);
  const auto shared = shared_.find(client.destination);
  const bool shares =
      client.subscribed && (roles & wire::kServiceRole) != 0 && shared != shared_.end();
  output_.clear();
  wire::AppendWelcome(&output_, shares ? wire::kHasDescriptor : 0, instance_, roles);
  if (!shares) return client.writer.Send(client.socket.get(), output_);
  // The first frame of a connection always finds room.
  return SendWithDescriptor(client.socket.get(), output_, shared->second.get()) ==
         static_cast<ssize_t>(output_.size());
}

void DirectServer::HandleCall(const ClientPtr& client) {
  client->waiting = client->paused = false;
  const bool expects_reply = client->ExpectsReply();
  MsgBusMsg request(std::string(client->call.interface), std::string(client->call.member),
                    client->destination);
  request.SetSender(client->credentials);
  request.SetSerial(client->call.serial);
  const bool is_well_formed = wire::ReadValues(client->call.values, &request);
  client->reader.Wipe();
  const MsgBusMsg answer =
      is_well_formed ? dispatcher_.Answer(request, expects_reply)
                     : MsgBusMsg::ErrorTo(request, BusError::kInvalidArgs, "malformed arguments");
  if (client->dropped) return;
  if (expects_reply) {
    output_.clear();
    const wire::ScopedFrameWipe wipe(&output_);
    if (answer.IsError()) {
      wire::AppendFrame(&output_,
                        {wire::Kind::kError, 0, answer.ReplySerial(), {}, answer.ErrorName(), {}},
                        {answer.ErrorText()});
    } else {
      wire::AppendFrame(&output_, {wire::Kind::kReply, 0, answer.ReplySerial(), {}, {}, {}},
                        answer.Body());
    }
    Send(client, output_);
  }
  TakeFrames(client);
  Refresh(client);
}

void DirectServer::Send(const ClientPtr& client, std::string_view frames) {
  if (client->dropped) return;
  if (!client->writer.Send(client->socket.get(), frames)) return Drop(client, "");
  if (client->writer.PendingBytes() > config_.max_output_bytes) {
    return Drop(client, "does not read");
  }
  Refresh(client);
}

void DirectServer::Refresh(const ClientPtr& client) {
  if (client->dropped) return;
  uint32_t events = 0;
  if (!client->paused) events |= EPOLLIN;
  if (client->writer.PendingBytes() > 0) events |= EPOLLOUT;
  if (events == client->events) return;
  client->events = events;
  dispatch_.Modify(client->watch, events);
}

void DirectServer::GiveTime(const ClientPtr& client) {
  if (client->timer != 0) return;
  const std::weak_ptr<Client> weak = client;
  client->timer = dispatch_.After(config_.handshake_timeout, [this, weak] {
    if (const ClientPtr late = weak.lock()) Drop(late, late->greeted ? "too slow" : "no hello");
  });
}

void DirectServer::Forget(const Client& client) {
  if (client.waiting) scheduler_.Remove(*client.caller, client);
}

void DirectServer::Drop(const ClientPtr& client, const std::string& reason) {
  if (std::exchange(client->dropped, true)) return;
  if (!reason.empty()) {
    complaints_.Write(core::Logger::kInformation, client->credentials.uid, reason,
                      client->destination + ": a connection of user " +
                          std::to_string(client->credentials.uid) + " dropped: " + reason);
  }
  dispatch_.Remove(client->watch);
  shutdown(client->socket.get(), SHUT_RDWR);
  client->socket.Reset();
  if (client->timer != 0) dispatch_.Cancel(client->timer);
  // What it asked would be held, and counted nowhere, until its turn comes.
  Forget(*client);
  admission_->Leave(client->credentials);
  clients_.erase(client->watch);
}

}  // namespace tevra::msgbus

#include "tevra/msgbus/bus_link.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr const char* kPeerInterface = "org.freedesktop.DBus.Peer";
constexpr std::chrono::milliseconds kPartialHeaderPause{1};

void Check(int result) {
  if (result < 0) throw osa::Exception("message bus: cannot connect: %s", strerror(-result));
}

bool IsDead(int result) {
  return result == -ECONNRESET || result == -ENOTCONN || result == -EPIPE || result == -ESHUTDOWN;
}

timespec ToTimespec(std::chrono::nanoseconds span) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(span);
  return {static_cast<time_t>(seconds.count()), static_cast<long>((span - seconds).count())};
}

}  // namespace

BusLink::BusLink(BusFd socket, Side side, size_t max_message_bytes)
    : side_(side), guarded_(true), guard_(max_message_bytes) {
  sd_bus* bus = nullptr;
  Check(sd_bus_new(&bus));
  bus_ = bus;
  try {
    fd_ = socket.get();
    Check(sd_bus_set_fd(bus_, fd_, fd_));
    socket.Release();
    Check(sd_bus_negotiate_creds(bus_, 0, _SD_BUS_CREDS_ALL));
    Check(sd_bus_negotiate_fds(bus_, 0));
    if (side_ == Side::kServer) {
      sd_id128_t id;
      Check(sd_id128_randomize(&id));
      Check(sd_bus_set_server(bus_, 1, id));
      // Who calls is known from the socket, whatever the handshake says.
      Check(sd_bus_set_anonymous(bus_, 1));
    }
    // A server reads the handshake as soon as it starts, so it starts when that has been judged.
    if (side_ == Side::kClient) Start();
  } catch (...) {
    Close();
    throw;
  }
}

BusLink::BusLink(const std::string& address) : side_(Side::kClient), guarded_(false), guard_(0) {
  sd_bus* bus = nullptr;
  Check(sd_bus_new(&bus));
  bus_ = bus;
  try {
    Check(sd_bus_set_address(bus_, address.c_str()));
    Check(sd_bus_set_bus_client(bus_, 1));
    Check(sd_bus_negotiate_creds(bus_, 0, _SD_BUS_CREDS_ALL));
    Check(sd_bus_negotiate_fds(bus_, 0));
    Start();
    fd_ = sd_bus_get_fd(bus_);
    Check(fd_);
    ForkRegistry::AddFd(fd_);
  } catch (...) {
    sd_bus_close_unref(bus_);
    throw;
  }
}

void BusLink::Start() {
  Check(sd_bus_add_filter(bus_, nullptr, OnMessage, this));
  int result = 0;
  const auto start = [this, &result] { return (result = sd_bus_start(bus_)) >= 0; };
  if (fd_ < 0) {
    start();
  } else if (!ForkRegistry::UseFd(fd_, start)) {
    fd_ = -1;
  }
  Check(result);
  started_ = true;
}

BusLink::~BusLink() {
  if (generation_ != ForkRegistry::Generation()) {
    static_cast<void>(incoming_.release());
    return;
  }
  incoming_.reset();
  Close();
}

void BusLink::Close() {
  if (IsClosed()) {
    sd_bus_unref(bus_);
  } else {
    ForkRegistry::RemoveFd(fd_, [this] { sd_bus_close_unref(bus_); });
  }
}

uint32_t BusLink::Events() const {
  const int events = sd_bus_get_events(bus_);
  return events < 0 ? POLLIN : static_cast<uint32_t>(events);
}

// Every message comes through here, at the end of its reading. Handling it waits until sd-bus has
// returned: a handler may do anything, sd-bus in the middle of its work may not be asked to.
int BusLink::OnMessage(sd_bus_message* message, void* link, sd_bus_error*) {
  auto* self = static_cast<BusLink*>(link);
  if (self->guarded_) self->guard_.MessageEnded(self->fd_);
  const char* interface = sd_bus_message_get_interface(message);
  if (interface != nullptr && strcmp(interface, kPeerInterface) == 0) return 0;
  self->incoming_.reset(sd_bus_message_ref(message));
  return 1;
}

FrameGuard::Verdict BusLink::Look() {
  if (!guarded_) return FrameGuard::Verdict::kRead;
  if (authenticated_) return guard_.Look(fd_, (Events() & POLLOUT) == 0);
  if (side_ == Side::kServer) return guard_.LookAtHandshake(fd_);
  return FrameGuard::Verdict::kRead;
}

BusLink::Progress BusLink::Proceed(FrameGuard::Verdict verdict) {
  incoming_.reset();
  waits_for_more_ = verdict == FrameGuard::Verdict::kPartial;
  if (verdict == FrameGuard::Verdict::kRefuse) return Progress::kDead;
  const bool may_read = verdict == FrameGuard::Verdict::kRead;
  if (!may_read && (Events() & POLLOUT) == 0) return Progress::kNone;
  if (!started_) {
    Start();
    return Progress::kSome;
  }
  const int result = sd_bus_process(bus_, nullptr);
  if (result < 0 || sd_bus_is_open(bus_) <= 0) return Progress::kDead;
  if (!authenticated_ && IsReady()) {
    authenticated_ = true;
    if (guarded_ && side_ == Side::kServer && !guard_.HandshakeWasSeen()) return Progress::kDead;
  }
  if (guarded_ && may_read && guard_.MessageWasSkipped(fd_)) return Progress::kDead;
  return result > 0 ? Progress::kSome : Progress::kNone;
}

bool BusLink::HasQueuedInput() const {
  uint64_t count = 0;
  return sd_bus_get_n_queued_read(bus_, &count) >= 0 && count > 0;
}

bool BusLink::Send(sd_bus_message* message, size_t size, uint64_t* cookie) {
  uint64_t unused = 0;
  const int result = sd_bus_send(bus_, message, cookie != nullptr ? cookie : &unused);
  if (result < 0 && !IsDead(result)) {
    throw osa::Exception("message bus: cannot send: %s", strerror(-result));
  }
  if (result < 0) return false;
  queued_sizes_.push_back(size);
  queued_bytes_ += size;
  return true;
}

size_t BusLink::QueuedBytes() {
  uint64_t count = 0;
  if (sd_bus_get_n_queued_write(bus_, &count) < 0) count = 0;
  while (queued_sizes_.size() > count) {
    queued_bytes_ -= queued_sizes_.front();
    queued_sizes_.pop_front();
  }
  return queued_bytes_;
}

bool BusLink::LacksOnlyAMessage() const {
  return guarded_ && authenticated_ && !waits_for_more_ && !guard_.IsInsideMessage() &&
         Events() == POLLIN;
}

// sd-bus made the socket non-blocking, but asks for that with every read and write as well.
void BusLink::SetReceiveTimeout(std::chrono::milliseconds timeout) {
  if (timeout == receive_timeout_) return;
  if (receive_timeout_.count() == 0) fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
  const timespec span = ToTimespec(timeout);
  const timeval value{span.tv_sec, span.tv_nsec / 1000};
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
  receive_timeout_ = timeout;
}

BusLink::Outcome BusLink::Await(Deadline deadline) {
  const auto left = deadline - std::chrono::steady_clock::now();
  if (left <= left.zero()) return Outcome::kTimedOut;
  return Proceed(AwaitVerdict(left)) == Progress::kDead ? Outcome::kLost : Outcome::kDone;
}

// To wait by looking saves a system call on every answer.
FrameGuard::Verdict BusLink::AwaitVerdict(std::chrono::nanoseconds timeout) {
  if (LacksOnlyAMessage()) {
    // Whole milliseconds, so that calls with the same time-out do not set it anew each time.
    SetReceiveTimeout(std::chrono::ceil<std::chrono::milliseconds>(timeout));
    return guard_.Await(fd_);
  }
  Poll(timeout);
  return Look();
}

void BusLink::Poll(std::chrono::nanoseconds timeout) {
  if (waits_for_more_) {
    const timespec pause = ToTimespec(kPartialHeaderPause);
    nanosleep(&pause, nullptr);
  }
  pollfd descriptor{fd_, static_cast<short>(Events()), 0};
  const timespec span = ToTimespec(timeout);
  ppoll(&descriptor, 1, &span, nullptr);
}

BusLink::Outcome BusLink::Call(sd_bus_message* message, Deadline deadline, MessagePtr* answer) {
  uint64_t cookie = 0;
  if (!Send(message, 0, &cookie)) return Outcome::kNotSent;
  for (;;) {
    const Outcome outcome = Await(deadline);
    const MessagePtr incoming = TakeIncoming();
    uint64_t answered = 0;
    if (incoming && sd_bus_message_get_reply_cookie(incoming.get(), &answered) >= 0 &&
        answered == cookie) {
      answer->reset(sd_bus_message_ref(incoming.get()));
      QueuedBytes();
      return Outcome::kDone;
    }
    if (outcome != Outcome::kDone) return outcome;
  }
}

BusLink::Outcome BusLink::SendAndFlush(sd_bus_message* message, Deadline deadline) {
  if (!Send(message, 1)) return Outcome::kNotSent;
  while (QueuedBytes() > 0) {
    const Outcome outcome = Await(deadline);
    if (outcome != Outcome::kDone) return outcome;
  }
  return Outcome::kDone;
}

}  // namespace tevra::msgbus

#include "tevra/msgbus/broker/bus_link.h"

#include <poll.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr const char* kPeerInterface = "org.freedesktop.DBus.Peer";

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

BusLink::BusLink(const std::string& address) {
  sd_bus* bus = nullptr;
  Check(sd_bus_new(&bus));
  bus_ = bus;
  try {
    Check(sd_bus_set_address(bus_, address.c_str()));
    Check(sd_bus_set_bus_client(bus_, 1));
    Check(sd_bus_negotiate_creds(bus_, 0, _SD_BUS_CREDS_ALL));
    Check(sd_bus_negotiate_fds(bus_, 0));
    Check(sd_bus_add_filter(bus_, nullptr, OnMessage, this));
    Check(sd_bus_start(bus_));
    fd_ = sd_bus_get_fd(bus_);
    Check(fd_);
    identity_ = osa::FileIdentity(fd_);
  } catch (...) {
    sd_bus_close_unref(bus_);
    throw;
  }
}

BusLink::~BusLink() {
  incoming_.reset();
  // sd-bus would close the number.
  const bool is_open = sd_bus_get_fd(bus_) >= 0;
  if (!is_open || IsIntact()) sd_bus_close_unref(bus_);
}

uint32_t BusLink::Events() const {
  const int events = sd_bus_get_events(bus_);
  return events < 0 ? POLLIN : static_cast<uint32_t>(events);
}

// Every message comes through here, at the end of its reading. Handling it waits until sd-bus has
// returned: a handler may do anything, sd-bus in the middle of its work may not be asked to.
int BusLink::OnMessage(sd_bus_message* message, void* link, sd_bus_error*) {
  auto* self = static_cast<BusLink*>(link);
  const char* interface = sd_bus_message_get_interface(message);
  if (interface != nullptr && strcmp(interface, kPeerInterface) == 0) return 0;
  self->incoming_.reset(sd_bus_message_ref(message));
  return 1;
}

BusLink::Progress BusLink::Advance() {
  incoming_.reset();
  const int result = sd_bus_process(bus_, nullptr);
  if (result < 0 || sd_bus_is_open(bus_) <= 0) return Progress::kDead;
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

Outcome BusLink::Await(Deadline deadline) {
  const auto left = deadline - std::chrono::steady_clock::now();
  if (left <= left.zero()) return Outcome::kTimedOut;
  pollfd descriptor{fd_, static_cast<short>(Events()), 0};
  const timespec span = ToTimespec(left);
  ppoll(&descriptor, 1, &span, nullptr);
  return Advance() == Progress::kDead ? Outcome::kLost : Outcome::kDone;
}

Outcome BusLink::Call(sd_bus_message* message, Deadline deadline, MessagePtr* answer) {
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

Outcome BusLink::SendAndFlush(sd_bus_message* message, Deadline deadline) {
  if (!Send(message, 1)) return Outcome::kNotSent;
  while (QueuedBytes() > 0) {
    const Outcome outcome = Await(deadline);
    if (outcome != Outcome::kDone) return outcome;
  }
  return Outcome::kDone;
}

}  // namespace tevra::msgbus

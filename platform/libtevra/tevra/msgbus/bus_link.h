#ifndef TEVRA_MSGBUS_BUS_LINK_H_
#define TEVRA_MSGBUS_BUS_LINK_H_

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "tevra/msgbus/fork_registry.h"
#include "tevra/msgbus/frame_guard.h"
#include "tevra/msgbus/message_codec.h"

namespace tevra::msgbus {

using Deadline = std::chrono::steady_clock::time_point;

// One D-Bus connection. sd-bus's objects are not synchronised, so neither is this: whoever holds
// the link is alone with it.
class BusLink final {
 public:
  enum class Side { kServer, kClient };
  enum class Progress { kNone, kSome, kDead };
  enum class Outcome {
    kDone,
    kNotSent,  // the connection was dead already; the peer saw nothing of the message
    kLost,     // the connection died, or broke a rule, afterwards
    kTimedOut,
  };

  // Speaks over a connected Unix socket. Throws tevra::osa::Exception.
  BusLink(BusFd socket, Side side, size_t max_message_bytes);
  // Connects to a broker. The broker is trusted with the length of messages.
  explicit BusLink(const std::string& address);
  ~BusLink();
  BusLink(const BusLink&) = delete;
  BusLink& operator=(const BusLink&) = delete;

  sd_bus* bus() const { return bus_; }
  int fd() const { return fd_; }
  // sd-bus closes the socket when a handshake fails; its number may be somebody else's by now.
  bool IsClosed() const { return fd_ < 0; }
  bool IsReady() const { return sd_bus_is_ready(bus_) > 0; }
  // What to wait for, as poll flags.
  uint32_t Events() const;
  // Only new bytes may wake whoever waits: those that are there already are not enough.
  bool WaitsForMore() const { return waits_for_more_; }

  // Writes what is queued and reads at the most one message, without blocking.
  Progress Advance() { return Proceed(Look()); }
  // The message that Advance read; null when it read none.
  MessagePtr TakeIncoming() { return std::move(incoming_); }
  // Messages that wait inside sd-bus, where no poll shows them.
  bool HasQueuedInput() const;

  // Queues a message; false when the connection is dead.
  bool Send(sd_bus_message* message, size_t size, uint64_t* cookie = nullptr);
  // Bytes of the messages that the peer has not taken yet.
  size_t QueuedBytes();

  // Blocking. After anything but kDone the link is of no further use.
  Outcome Call(sd_bus_message* message, Deadline deadline, MessagePtr* answer);
  Outcome SendAndFlush(sd_bus_message* message, Deadline deadline);

 private:
  static int OnMessage(sd_bus_message* message, void* link, sd_bus_error*);

  FrameGuard::Verdict Look();
  Progress Proceed(FrameGuard::Verdict verdict);
  Outcome Await(Deadline deadline);
  FrameGuard::Verdict AwaitVerdict(std::chrono::nanoseconds timeout);
  bool LacksOnlyAMessage() const;
  void Poll(std::chrono::nanoseconds timeout);
  void SetReceiveTimeout(std::chrono::milliseconds timeout);
  void Start();
  void Close();

  sd_bus* bus_ = nullptr;
  int fd_ = -1;
  const Side side_;
  const bool guarded_;
  const uint64_t generation_ = ForkRegistry::Generation();
  FrameGuard guard_;
  bool started_ = false;
  bool authenticated_ = false;
  bool waits_for_more_ = false;
  std::chrono::milliseconds receive_timeout_{0};  // the socket's
  MessagePtr incoming_;
  std::deque<size_t> queued_sizes_;  // of the messages in sd-bus's write queue
  size_t queued_bytes_ = 0;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_BUS_LINK_H_

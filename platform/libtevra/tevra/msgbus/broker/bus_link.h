#ifndef TEVRA_MSGBUS_BROKER_BUS_LINK_H_
#define TEVRA_MSGBUS_BROKER_BUS_LINK_H_

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "tevra/msgbus/broker/message_codec.h"
#include "tevra/msgbus/connection_pool.h"
#include "tevra/msgbus/deadline.h"
#include "tevra/osa/file_identity.h"

namespace tevra::msgbus {

// One connection to a broker, who is trusted with the length of messages. sd-bus's objects are not
// synchronised, so neither is this: whoever holds the link is alone with it.
class BusLink final {
 public:
  enum class Progress { kNone, kSome, kDead };

  // Throws tevra::osa::Exception.
  explicit BusLink(const std::string& address);
  ~BusLink();
  BusLink(const BusLink&) = delete;
  BusLink& operator=(const BusLink&) = delete;

  sd_bus* bus() const { return bus_; }
  int fd() const { return fd_; }
  // Whether the number is still the connection's. One that the program has closed, and that may be
  // another file's by now, is left alone, and with it what sd-bus holds.
  bool IsIntact() const { return identity_.IsOf(fd_); }
  // What to wait for, as poll flags.
  uint32_t Events() const;

  // Writes what is queued and reads at the most one message, without blocking.
  Progress Advance();
  // The message that Advance read; null when it read none.
  MessagePtr TakeIncoming() { return std::move(incoming_); }
  // Messages that wait inside sd-bus, where no poll shows them.
  bool HasQueuedInput() const;

  // Queues a message; false when the connection is dead.
  bool Send(sd_bus_message* message, size_t size, uint64_t* cookie = nullptr);
  // Bytes of the messages that the broker has not taken yet.
  size_t QueuedBytes();

  // Blocking. After anything but kDone the link is of no further use.
  Outcome Call(sd_bus_message* message, Deadline deadline, MessagePtr* answer);
  Outcome SendAndFlush(sd_bus_message* message, Deadline deadline);

 private:
  static int OnMessage(sd_bus_message* message, void* link, sd_bus_error*);

  Outcome Await(Deadline deadline);

  sd_bus* bus_ = nullptr;
  int fd_ = -1;
  osa::FileIdentity identity_;
  MessagePtr incoming_;
  std::deque<size_t> queued_sizes_;  // of the messages in sd-bus's write queue
  size_t queued_bytes_ = 0;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_BROKER_BUS_LINK_H_

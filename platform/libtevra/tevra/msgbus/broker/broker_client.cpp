#include "tevra/msgbus/broker/broker_client.h"

#include <cstring>

#include "tevra/osa/exception.h"
#include "tevra/osa/held_cancellation.h"

namespace tevra::msgbus {
namespace {

constexpr const char* kBroker = "org.freedesktop.DBus";
constexpr const char* kBrokerPath = "/org/freedesktop/DBus";

bool IsOwnerGone(const sd_bus_error* error) {
  return sd_bus_error_has_name(error, SD_BUS_ERROR_SERVICE_UNKNOWN) > 0 ||
         sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0;
}

// An error that the broker itself made means that the message was not answered; only a refusal by
// its policy is something the caller should see as such.
bool IsBrokersOwn(sd_bus_message* answer, const sd_bus_error* error) {
  const char* sender = sd_bus_message_get_sender(answer);
  return sender != nullptr && strcmp(sender, kBroker) == 0 &&
         sd_bus_error_has_name(error, SD_BUS_ERROR_ACCESS_DENIED) <= 0;
}

}  // namespace

BrokerClient::BrokerClient(const BusConfig& config)
    : config_(config), pool_(config.pool_size, [this](Deadline) {
        return std::make_unique<Connection>(config_.address);
      }) {}

template <typename Use>
void BrokerClient::With(Deadline deadline, const Use& use) {
  // sd-bus cannot be left in the middle: the cancellation of a thread waits for the deadline.
  const osa::HeldCancellation held;
  pool_.With(deadline, [&use](Lease& lease) {
    if (!lease->link.IsIntact()) lease.Check(Outcome::kNotSent, "the broker");
    use(lease);
  });
}

std::unique_ptr<MsgBusMsg> BrokerClient::Call(const MsgBusMsg& message, Deadline deadline) {
  CheckLength(message);
  std::unique_ptr<MsgBusMsg> reply;
  With(deadline, [&](Lease& lease) {
    reply = Try(lease, message, deadline);
    if (!reply) reply = Try(lease, message, deadline);
  });
  if (reply) return reply;
  throw osa::Exception("message bus: no server for %s", message.GetDestination().c_str());
}

void BrokerClient::Post(const MsgBusMsg& message, Deadline deadline) {
  CheckLength(message);
  const std::string& name = message.GetDestination();
  With(deadline, [&](Lease& lease) {
    // No one would tell that a remembered owner has gone, so ask again.
    const std::string owner = FindOwner(lease, name, deadline);
    const MessagePtr wire = MessageCodec::EncodeCall(lease->link.bus(), message, owner, false);
    lease.Check(lease->link.SendAndFlush(wire.get(), deadline), name.c_str());
  });
}

bool BrokerClient::HasServer(const std::string& name, Deadline deadline) {
  bool owned = false;
  With(deadline,
       [&](Lease& lease) { owned = AskBroker(lease, "GetNameOwner", name, deadline) != nullptr; });
  return owned;
}

void BrokerClient::CheckLength(const MsgBusMsg& message) const {
  if (message.Size() <= config_.max_message_bytes) return;
  throw osa::Exception("message bus: the message to %s is too long",
                       message.GetDestination().c_str());
}

std::unique_ptr<MsgBusMsg> BrokerClient::Try(Lease& lease, const MsgBusMsg& message,
                                             Deadline deadline) {
  const std::string& name = message.GetDestination();
  const auto known = lease->owners.find(name);
  const std::string owner =
      known != lease->owners.end() ? known->second : FindOwner(lease, name, deadline);
  const MessagePtr wire = MessageCodec::EncodeCall(lease->link.bus(), message, owner, true);
  MessagePtr answer;
  lease.Check(lease->link.Call(wire.get(), deadline, &answer), name.c_str());
  if (const sd_bus_error* error = sd_bus_message_get_error(answer.get())) {
    if (IsOwnerGone(error)) {
      lease->owners.erase(name);
      return nullptr;
    }
    if (IsBrokersOwn(answer.get(), error)) {
      throw osa::Exception("message bus: %s: %s", name.c_str(),
                           error->message != nullptr ? error->message : error->name);
    }
  }
  return MessageCodec::DecodeAnswer(answer.get(), config_.max_message_bytes, message);
}

std::string BrokerClient::FindOwner(Lease& lease, const std::string& name, Deadline deadline) {
  const MessagePtr named = AskBroker(lease, "GetNameOwner", name, deadline);
  const char* owner = nullptr;
  if (!named || sd_bus_message_read_basic(named.get(), 's', &owner) <= 0) {
    throw osa::Exception("message bus: no server for %s", name.c_str());
  }
  const MessagePtr user = AskBroker(lease, "GetConnectionUnixUser", owner, deadline);
  uint32_t uid = 0;
  if (!user || sd_bus_message_read_basic(user.get(), 'u', &uid) <= 0) {
    throw osa::Exception("message bus: no server for %s", name.c_str());
  }
  if (!config_.Trusts(uid)) {
    throw osa::Exception("message bus: %s refused: it is served by user %u", name.c_str(), uid);
  }
  return lease->owners[name] = owner;
}

// Null when the broker answers with an error.
MessagePtr BrokerClient::AskBroker(Lease& lease, const char* member, const std::string& argument,
                                   Deadline deadline) {
  sd_bus_message* call = nullptr;
  if (sd_bus_message_new_method_call(lease->link.bus(), &call, kBroker, kBrokerPath, kBroker,
                                     member) < 0) {
    throw osa::Exception("message bus: out of memory");
  }
  const MessagePtr owned(call);
  if (sd_bus_message_append_basic(call, 's', argument.c_str()) < 0) {
    throw osa::Exception("message bus: \"%s\" is no name", argument.c_str());
  }
  MessagePtr answer;
  lease.Check(lease->link.Call(call, deadline, &answer), "the broker");
  if (sd_bus_message_get_error(answer.get()) != nullptr) return nullptr;
  return answer;
}

}  // namespace tevra::msgbus

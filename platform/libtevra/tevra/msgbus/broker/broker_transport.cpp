#include "tevra/msgbus/broker/broker_transport.h"

#include "tevra/osa/exception.h"

namespace tevra::msgbus {

BrokerTransport::BrokerTransport(const BusConfig& config, DispatchThread& dispatch,
                                 RequestDispatcher* requests, Subscribers& subscribers)
    : dispatch_(dispatch), endpoint_(config, dispatch, requests, subscribers), client_(config) {}

void BrokerTransport::CheckName(const std::string& name) const {
  if (sd_bus_service_name_is_valid(name.c_str()) > 0 && name[0] != ':') return;
  throw osa::Exception("message bus: \"%s\" is no destination name", name.c_str());
}

std::unique_ptr<MsgBusMsg> BrokerTransport::Call(const MsgBusMsg& message, Deadline deadline) {
  CheckName(message.GetDestination());
  // The one thread that could answer would wait for the answer.
  if (dispatch_.IsCurrent() && endpoint_.Serves(message.GetDestination())) {
    throw osa::Exception("message bus: a handler cannot wait for its own bus");
  }
  return client_.Call(message, deadline);
}

void BrokerTransport::Post(const MsgBusMsg& message, Deadline deadline) {
  CheckName(message.GetDestination());
  client_.Post(message, deadline);
}

bool BrokerTransport::HasServer(const std::string& name, Deadline deadline) {
  return client_.HasServer(name, deadline);
}

}  // namespace tevra::msgbus

#include "tevra/msgbus/direct/direct_transport.h"

#include "tevra/msgbus/direct/destination_socket.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {

DirectTransport::DirectTransport(const BusConfig& config, DispatchThread& dispatch,
                                 RequestDispatcher* requests, Subscribers& subscribers)
    : dispatch_(dispatch), watcher_(config, dispatch, subscribers), client_(config) {
  if (requests != nullptr) server_.emplace(config, dispatch, *requests);
}

void DirectTransport::CheckName(const std::string& name) const {
  DestinationSocket::CheckName(name);
}

std::unique_ptr<MsgBusMsg> DirectTransport::Call(const MsgBusMsg& message, Deadline deadline) {
  CheckIsNotOwn(message);
  return client_.Call(message, deadline);
}

void DirectTransport::Post(const MsgBusMsg& message, Deadline deadline) {
  CheckIsNotOwn(message);
  client_.Post(message, deadline);
}

// The one thread that could answer, or let the connection in, would wait for it.
void DirectTransport::CheckIsNotOwn(const MsgBusMsg& message) const {
  if (server_ && dispatch_.IsCurrent() && server_->Serves(message.GetDestination())) {
    throw osa::Exception("message bus: a handler cannot wait for its own bus");
  }
}

bool DirectTransport::HasServer(const std::string& name, Deadline) {
  return client_.HasServer(name);
}

}  // namespace tevra::msgbus

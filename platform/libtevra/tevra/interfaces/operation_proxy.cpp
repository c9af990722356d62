#include "tevra/interfaces/operation_proxy.h"

#include "tevra/interfaces/access_denied.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/osa/exception.h"

namespace tevra::interfaces {
namespace {

using msgbus::MsgBusMsg;

constexpr int kConfiguredDeadline = -1;

[[noreturn]] void ThrowError(const MsgBusMsg& reply) {
  const std::string& text = reply.ErrorText().empty() ? reply.ErrorName() : reply.ErrorText();
  if (reply.ErrorName() == msgbus::BusError::kAccessDenied) throw AccessDenied(text.c_str());
  if (reply.ErrorName() == msgbus::BusError::kNotSupported) {
    throw osa::Exception(osa::Exception::kUnimplemented);
  }
  throw osa::Exception("%s", text.c_str());
}

}  // namespace

void OperationProxy::ThrowMalformed(const char* operation, const std::string& reason) {
  throw osa::Exception("malformed reply to %s: %s", operation, reason.c_str());
}

std::unique_ptr<MsgBusMsg> OperationProxy::Send(const char* operation, const char* signature,
                                                MsgBusMsg& request) const {
  std::unique_ptr<MsgBusMsg> reply;
  bus_->SendMsgWaitForReply(request, reply, kConfiguredDeadline);
  if (!reply) ThrowMalformed(operation, "none");
  on_answer_(*reply);
  if (reply->IsError()) ThrowError(*reply);
  if (reply->Signature() != signature) {
    ThrowMalformed(operation, "(" + reply->Signature() + ") instead of (" + signature + ")");
  }
  return reply;
}

}  // namespace tevra::interfaces

#include "krand/interfaces/permission_initiator.h"

#include <variant>

#include "krand/interfaces/permission_protocol.h"
#include "tevra/interfaces/access_denied.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"

namespace {

using krand::interfaces::PermissionProtocol;
using tevra::msgbus::MsgBusMsg;

void CheckReply(const MsgBusMsg* reply, const char* operation, const std::string& signature) {
  if (reply == nullptr) {
    throw tevra::osa::Exception("%s: there was no reply", operation);
  }
  if (reply->IsError()) {
    if (reply->ErrorName() == tevra::msgbus::BusError::kAccessDenied) {
      throw tevra::interfaces::AccessDenied(reply->ErrorText().c_str());
    }
    throw tevra::osa::Exception("%s: %s", operation, reply->ErrorText().c_str());
  }
  if (reply->Signature() != signature) {
    throw tevra::osa::Exception("%s: malformed reply", operation);
  }
  const int32_t status = std::get<int32_t>(reply->Body()[0]);
  if (status != PermissionProtocol::kDone && status != PermissionProtocol::kRefused) {
    throw tevra::osa::Exception("%s: malformed reply", operation);
  }
}

}  // namespace

class KrandApiPermissionInitiator::Impl final {
 public:
  explicit Impl(const std::string& target_name)
      : destination_(PermissionProtocol::Destination(target_name)) {}

  // The checked reply: a status first, then what else `signature` says.
  std::unique_ptr<MsgBusMsg> Call(const char* operation, const std::vector<std::string>& arguments,
                                  const std::string& signature) {
    MsgBusMsg request(PermissionProtocol::kInterface, operation, destination_);
    for (const std::string& argument : arguments) {
      request.Append(argument);
    }
    std::unique_ptr<MsgBusMsg> reply;
    bus_.SendMsgWaitForReply(request, reply, -1);
    CheckReply(reply.get(), operation, signature);
    return reply;
  }

 private:
  const std::string destination_;
  tevra::msgbus::MsgBus bus_;
};

KrandApiPermissionInitiator::KrandApiPermissionInitiator(const std::string& target_name)
    : impl_(std::make_unique<Impl>(target_name)) {}

KrandApiPermissionInitiator::~KrandApiPermissionInitiator() = default;

std::optional<std::string> KrandApiPermissionInitiator::GetAccessRule(const std::string& path) {
  const auto reply = impl_->Call(PermissionProtocol::kGetAccessRule, {path}, "is");
  if (std::get<int32_t>(reply->Body()[0]) != PermissionProtocol::kDone) {
    return std::nullopt;
  }
  return std::get<std::string>(reply->Body()[1]);
}

bool KrandApiPermissionInitiator::SetAccessRule(const std::string& path, const std::string& rule) {
  const auto reply = impl_->Call(PermissionProtocol::kSetAccessRule, {path, rule}, "i");
  return std::get<int32_t>(reply->Body()[0]) == PermissionProtocol::kDone;
}

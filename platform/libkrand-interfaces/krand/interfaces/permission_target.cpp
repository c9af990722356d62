#include "krand/interfaces/permission_target.h"

#include <cstdarg>
#include <cstdlib>
#include <variant>

#include "krand/interfaces/permission_protocol.h"
#include "tevra/core/folded_log.h"
#include "tevra/core/logger.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/caller_roles.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"

namespace {

using krand::interfaces::PermissionProtocol;
using tevra::msgbus::BusError;
using tevra::msgbus::CallerRoles;
using tevra::msgbus::IMsgBus;
using tevra::msgbus::MsgBusMsg;

struct Operation {
  const char* member;
  CallerRoles::Role role;
  const char* signature;
  const char* results;
  const char* names;
};
constexpr Operation kGet = {PermissionProtocol::kGetAccessRule, CallerRoles::kService, "s", "is",
                            "path -> status rule"};
constexpr Operation kSet = {PermissionProtocol::kSetAccessRule, CallerRoles::kAdmin, "ss", "i",
                            "path rule -> status"};

// The target reads NUL-terminated texts; one that hides bytes behind a zero byte would be judged as
// another path or stored as another rule.
bool IsPlain(const std::string& text) {
  return text.find('\0') == std::string::npos;
}

const std::string& TextAt(const MsgBusMsg& message, size_t index) {
  return std::get<std::string>(message.Body()[index]);
}

}  // namespace

KrandApiPermissionTargetImplBase::~KrandApiPermissionTargetImplBase() {
  krand_core_trace("~KrandApiPermissionTargetImplBase");
}

void KrandApiPermissionTargetImplBase::log(krand_core_log_priority priority, const char* format,
                                           ...) {
  va_list arguments;
  va_start(arguments, format);
  krand_core_logging_logv(context_, priority, format, arguments);
  va_end(arguments);
}

class KrandApiPermissionTargetRun::Impl final : public tevra::msgbus::IMessageHandler {
 public:
  Impl(const std::string& name, boost::shared_ptr<KrandApiPermissionTargetImplBase> target)
      : logger_(tevra::core::Logger::GetLogger("krand")), name_(name), target_(std::move(target)) {
    if (!target_) {
      throw tevra::osa::Exception("permission target %s: there is no target", name_.c_str());
    }
    if (!target_->isRunnable()) {
      logger_->Notice("Permission target %s is not runnable and is not served", name_.c_str());
      return;
    }
    Serve();
  }

  ~Impl() override {
    if (registered_) {
      StopServing();
    }
  }

  void HandleMessage(IMsgBus& bus, MsgBusMsg& message) override {
    bus.SendReply(message.GetName() == PermissionProtocol::kSetAccessRule ? Set(message)
                                                                          : Get(message));
  }

 private:
  void Serve() {
    bus_.RegisterMessageHandler(PermissionProtocol::kGetAccessRule, PermissionProtocol::kInterface,
                                this);
    bus_.RegisterMessageHandler(PermissionProtocol::kSetAccessRule, PermissionProtocol::kInterface,
                                this);
    registered_ = true;
    try {
      bus_.Describe(KrandApiPermissionTargetRun::Description());
      bus_.RegisterDestinationName(PermissionProtocol::Destination(name_));
      bus_.StartServer();
    } catch (...) {
      StopServing();
      throw;
    }
  }

  void StopServing() {
    bus_.UnregisterMessageHandler(this);  // once for each registration
    bus_.UnregisterMessageHandler(this);
    bus_.StopServer();
  }

  // Nothing when the caller may and the arguments are right; else the error reply.
  std::unique_ptr<MsgBusMsg> Refuse(const MsgBusMsg& request, const Operation& operation) {
    if (!roles_.Holds(request.Sender(), operation.role)) {
      const char* const role_name = CallerRoles::RoleName(operation.role);
      const std::string user = std::to_string(request.Sender().uid);
      complaints_.Write(tevra::core::Logger::kNotice, request.Sender().uid, role_name,
                        "Permission target " + name_ + ": " + request.GetName() +
                            " refused to user " + user + ", who does not hold the role " +
                            role_name);
      return Error(request, BusError::kAccessDenied,
                   CallerRoles::Refusal(operation.role, request.GetName()));
    }
    if (request.Signature() != operation.signature) {
      return Error(request, BusError::kInvalidArgs,
                   request.GetName() + " takes \"" + operation.signature + "\", not \"" +
                       request.Signature() + "\"");
    }
    return nullptr;
  }

  static std::unique_ptr<MsgBusMsg> Error(const MsgBusMsg& request, const std::string& name,
                                          const std::string& text) {
    return std::make_unique<MsgBusMsg>(MsgBusMsg::ErrorTo(request, name, text));
  }

  MsgBusMsg Get(const MsgBusMsg& request) {
    if (const auto refusal = Refuse(request, kGet)) {
      return *refusal;
    }
    const std::string& path = TextAt(request, 0);
    char* raw = nullptr;
    int status = PermissionProtocol::kRefused;
    if (IsPlain(path)) {
      status = target_->getAccessRule(path.c_str(), &raw);
    }
    const std::unique_ptr<char, decltype(&free)> rule(raw, free);
    MsgBusMsg reply = MsgBusMsg::ReplyTo(request);
    reply.Append(static_cast<int32_t>(status));
    reply.Append(std::string(status == PermissionProtocol::kDone && rule ? rule.get() : ""));
    return reply;
  }

  MsgBusMsg Set(const MsgBusMsg& request) {
    if (const auto refusal = Refuse(request, kSet)) {
      return *refusal;
    }
    const std::string& path = TextAt(request, 0);
    const std::string& rule = TextAt(request, 1);
    int status = PermissionProtocol::kRefused;
    if (IsPlain(path) && IsPlain(rule)) {
      status = target_->setAccessRule(path.c_str(), rule.c_str());
    }
    MsgBusMsg reply = MsgBusMsg::ReplyTo(request);
    reply.Append(static_cast<int32_t>(status));
    return reply;
  }

  // Constant after construction.
  tevra::core::Logger* const logger_;
  const std::string name_;
  const boost::shared_ptr<KrandApiPermissionTargetImplBase> target_;
  const CallerRoles roles_;
  bool registered_ = false;

  tevra::core::FoldedLog complaints_{logger_};  // on the bus's thread only

  tevra::msgbus::MsgBus bus_;
};

KrandApiPermissionTargetRun::KrandApiPermissionTargetRun(
    const std::string& name, void* context,
    boost::shared_ptr<KrandApiPermissionTargetImplBase> target) {
  static_cast<void>(context);
  krand_core_trace("KrandApiPermissionTargetRun");
  impl_ = std::make_unique<Impl>(name, std::move(target));
}

KrandApiPermissionTargetRun::~KrandApiPermissionTargetRun() {
  krand_core_trace("~KrandApiPermissionTargetRun");
}

tevra::msgbus::ServedInterface KrandApiPermissionTargetRun::Description() {
  tevra::msgbus::ServedInterface served;
  served.name = PermissionProtocol::kInterface;
  for (const Operation& operation : {kGet, kSet}) {
    served.operations.push_back(tevra::msgbus::ServedOperation::Of(
        operation.member, CallerRoles::RoleName(operation.role), operation.signature,
        operation.results, operation.names));
  }
  return served;
}

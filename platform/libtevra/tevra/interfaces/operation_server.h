#ifndef TEVRA_INTERFACES_OPERATION_SERVER_H_
#define TEVRA_INTERFACES_OPERATION_SERVER_H_

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tevra/core/folded_log.h"
#include "tevra/core/logger.h"
#include "tevra/interfaces/access_denied.h"
#include "tevra/interfaces/wire_type.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/i_msg_bus.h"
#include "tevra/msgbus/served_operation.h"
#include "tevra/osa/exception.h"

namespace tevra::interfaces {

// Private-key operations and writes to the store take milliseconds, all else microseconds.
enum class Cost { kCheap, kDear };

// Which roles may call an operation.
enum class Audience { kService, kAdmin, kEither };

// One operation that the bus offers, and to whom. `run` calls it on the target, with arguments of
// exactly this signature, and tells whether clients must hear that sessions have ended.
template <typename Target>
struct Operation {
  const char* name;
  Audience audience;
  Cost cost;
  std::string_view signature;
  bool (*run)(Target& target, const Call& call, msgbus::MsgBusMsg& reply);
};

// The table for people and for checks of what is written about it elsewhere.
template <typename Target, size_t count>
std::vector<msgbus::ServedOperation> RowsOf(const Operation<Target> (&operations)[count],
                                            const char* interface) {
  static constexpr const char* kRoles[] = {"service", "admin", "either"};  // by audience
  std::vector<msgbus::ServedOperation> rows;
  for (const Operation<Target>& operation : operations) {
    rows.push_back({interface, operation.name, kRoles[static_cast<size_t>(operation.audience)]});
  }
  return rows;
}

template <auto method, typename Target, typename Result, typename... Parameters>
struct ServedMethod {
  static constexpr std::string_view kSignature = kSignatureOf<Parameters...>;

  static bool Run(Target& target, const Call& call, msgbus::MsgBusMsg& reply) {
    Run(target, call, reply, std::index_sequence_for<Parameters...>());
    return false;
  }

 private:
  template <size_t... index>
  static void Run(Target& target, [[maybe_unused]] const Call& call, msgbus::MsgBusMsg& reply,
                  std::index_sequence<index...>) {
    reply.Append((target.*method)(WireType<std::decay_t<Parameters>>::Get(call, index)...));
  }
};

// Decodes the arguments of an operation, calls it and encodes its result, all by the method's type;
// what a type does not tell is a specialisation.
template <auto method>
struct Served;
template <typename Target, typename Result, typename... Parameters,
          Result (Target::*method)(Parameters...)>
struct Served<method> : ServedMethod<method, Target, Result, Parameters...> {};
template <typename Target, typename Result, typename... Parameters,
          Result (Target::*method)(Parameters...) const>
struct Served<method> : ServedMethod<method, Target, Result, Parameters...> {};

template <typename Target>
struct ServedTarget;
template <typename Owner, typename Method>
struct ServedTarget<Method Owner::*> {
  using Type = Owner;
};

// The row of a table for `method`.
template <auto method>
constexpr auto Serve(const char* name, Audience audience, Cost cost = Cost::kCheap) {
  using Target = typename ServedTarget<decltype(method)>::Type;
  return Operation<Target>{name, audience, cost, Served<method>::kSignature, &Served<method>::Run};
}

// Serves a table of operations as one interface of a bus: judges the caller's role, then the
// arguments' types, and turns what an operation throws into an error answer. Everything must
// outlive it. Runs on the bus's dispatch thread; RefusedCalls on any.
template <typename Target>
class OperationServer final {
 public:
  // `on_ended_sessions` runs before the caller has the answer of an operation that ended some.
  // Throws tevra::osa::Exception when the roles are misconfigured.
  OperationServer(
      msgbus::IMsgBus* bus, Target* target, const char* interface_name,
      std::span<const Operation<Target>> operations, core::Logger* logger,
      std::function<void()> on_ended_sessions = [] {})
      : bus_(bus),
        target_(target),
        logger_(logger),
        on_ended_sessions_(std::move(on_ended_sessions)) {
    try {
      for (const Operation<Target>& operation : operations) {
        handlers_.push_back(std::make_unique<Handler>(*this, operation));
        bus_->RegisterMessageHandler(operation.name, interface_name, handlers_.back().get());
      }
    } catch (...) {
      Unregister();
      throw;
    }
  }
  ~OperationServer() { Unregister(); }
  OperationServer(const OperationServer&) = delete;
  OperationServer& operator=(const OperationServer&) = delete;

  uint64_t RefusedCalls() const { return refused_calls_; }

 private:
  using CallerRoles = msgbus::CallerRoles;
  using MsgBusMsg = msgbus::MsgBusMsg;

  class Handler final : public msgbus::IMessageHandler {
   public:
    Handler(OperationServer& server, const Operation<Target>& operation)
        : server_(server), operation_(operation) {}
    void HandleMessage(msgbus::IMsgBus& bus, MsgBusMsg& message) override {
      bus.SendReply(server_.Answer(operation_, message));
    }
    bool IsDear() const override { return operation_.cost == Cost::kDear; }

   private:
    OperationServer& server_;
    const Operation<Target>& operation_;
  };

  void Unregister() {
    for (const auto& handler : handlers_) bus_->UnregisterMessageHandler(handler.get());
  }

  bool Admits(Audience audience, const msgbus::Credentials& caller) const {
    return (audience != Audience::kAdmin && roles_.Holds(caller, CallerRoles::kService)) ||
           (audience != Audience::kService && roles_.Holds(caller, CallerRoles::kAdmin));
  }

  MsgBusMsg Answer(const Operation<Target>& operation, const MsgBusMsg& request) {
    if (!Admits(operation.audience, request.Sender())) {
      // Of an operation for either role the lesser one is missing.
      const auto role =
          operation.audience == Audience::kAdmin ? CallerRoles::kAdmin : CallerRoles::kService;
      const std::string name = CallerRoles::RoleName(role);
      return Refuse(operation, request, name, ", who does not hold the role " + name,
                    CallerRoles::Refusal(role, operation.name));
    }
    if (request.Signature() != operation.signature) return RefuseArguments(operation, request);
    try {
      MsgBusMsg reply = MsgBusMsg::ReplyTo(request);
      // Clients hear of the end before the caller has its answer.
      if (operation.run(*target_, Call{request, roles_}, reply)) on_ended_sessions_();
      return reply;
    } catch (const AccessDenied& e) {
      return Refuse(operation, request, "session", std::string(": ") + e.what(), e.what());
    } catch (const osa::Exception& e) {
      const bool unimplemented = e.code() == osa::Exception::kUnimplemented;
      if (!unimplemented) logger_->Error("%s failed: %s", operation.name, e.what());
      return MsgBusMsg::ErrorTo(
          request, unimplemented ? msgbus::BusError::kNotSupported : msgbus::BusError::kFailed,
          e.what());
    } catch (const std::exception& e) {
      logger_->Error("%s failed: %s", operation.name, e.what());
      return MsgBusMsg::ErrorTo(request, msgbus::BusError::kFailed, e.what());
    }
  }

  MsgBusMsg RefuseArguments(const Operation<Target>& operation, const MsgBusMsg& request) {
    const std::string text = std::string(operation.name) + " takes (" +
                             std::string(operation.signature) + "), not (" + request.Signature() +
                             ")";
    complaints_.Write(core::Logger::kInformation, request.Sender().uid, "malformed",
                      "Malformed call: " + text);
    return MsgBusMsg::ErrorTo(request, msgbus::BusError::kInvalidArgs, text);
  }

  MsgBusMsg Refuse(const Operation<Target>& operation, const MsgBusMsg& request,
                   const std::string& cause, const std::string& why, const std::string& answer) {
    const uint64_t count = ++refused_calls_;
    const uid_t user = request.Sender().uid;
    complaints_.Write(core::Logger::kNotice, user, cause,
                      std::string("Refused ") + operation.name + " to user " +
                          std::to_string(user) + why + " (refusal " + std::to_string(count) + ")");
    return MsgBusMsg::ErrorTo(request, msgbus::BusError::kAccessDenied, answer);
  }

  // Constant after construction.
  msgbus::IMsgBus* const bus_;
  Target* const target_;
  core::Logger* const logger_;
  const std::function<void()> on_ended_sessions_;
  const CallerRoles roles_;
  std::vector<std::unique_ptr<Handler>> handlers_;

  core::FoldedLog complaints_{logger_};  // on the bus's thread only
  std::atomic<uint64_t> refused_calls_ = 0;
};

}  // namespace tevra::interfaces

#endif  // TEVRA_INTERFACES_OPERATION_SERVER_H_

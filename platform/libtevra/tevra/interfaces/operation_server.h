#ifndef TEVRA_INTERFACES_OPERATION_SERVER_H_
#define TEVRA_INTERFACES_OPERATION_SERVER_H_

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
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
#include "tevra/msgbus/served_interface.h"
#include "tevra/osa/exception.h"

namespace tevra::interfaces {

// Private-key operations and writes to the store take milliseconds, all else microseconds.
enum class Cost { kCheap, kDear };

// Which roles may call an operation.
enum class Audience { kService, kAdmin, kEither };

// One operation that the bus offers, and to whom. `run` calls it on the target, with arguments of
// exactly this signature, and tells whether clients must hear that sessions have ended. The names
// are those of arguments and results for people and for D-Bus, as ServedOperation::Of reads them.
template <typename Target>
struct Operation {
  const char* name;
  std::string_view names;
  Audience audience;
  Cost cost;
  std::string_view signature;
  std::string_view results;
  bool (*run)(Target& target, const Call& call, msgbus::MsgBusMsg& reply);
};

inline constexpr const char* kRefusedCalls = "RefusedCalls";

// The table for people, for D-Bus and for checks of what is written about it elsewhere.
template <typename Target, size_t count>
msgbus::ServedInterface DescriptionOf(const Operation<Target> (&operations)[count],
                                      const char* interface) {
  static constexpr const char* kRoles[] = {"service", "admin", "either"};  // by audience
  msgbus::ServedInterface served;
  served.name = interface;
  for (const Operation<Target>& operation : operations) {
    served.operations.push_back(
        msgbus::ServedOperation::Of(operation.name, kRoles[static_cast<size_t>(operation.audience)],
                                    operation.signature, operation.results, operation.names));
  }
  served.counters.push_back({kRefusedCalls, nullptr});
  return served;
}

// Whether the part of `names` has a word for each letter of `types`.
constexpr bool HasNames(std::string_view names, std::string_view types) {
  size_t words = 0;
  for (size_t i = 0; i < names.size(); ++i) {
    if (names[i] != ' ' && (i == 0 || names[i - 1] == ' ')) ++words;
  }
  return words == types.size();
}

template <auto method, typename Target, typename Result, typename... Parameters>
struct ServedMethod {
  static constexpr std::string_view kSignature = kSignatureOf<Parameters...>;
  static constexpr std::string_view kResults = kSignatureOf<Result>;

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
constexpr auto Serve(const char* name, std::string_view names, Audience audience,
                     Cost cost = Cost::kCheap) {
  using Target = typename ServedTarget<decltype(method)>::Type;
  using Method = Served<method>;
  const size_t arrow = names.find("->");
  if (!HasNames(names.substr(0, arrow), Method::kSignature) ||
      !HasNames(arrow == names.npos ? "" : names.substr(arrow + 2), Method::kResults)) {
    throw "the names are those of the arguments, an arrow, and those of the results";
  }
  return Operation<Target>{name,        names, audience, cost, Method::kSignature, Method::kResults,
                           &Method::Run};
}

// Serves a table of operations as one interface of a bus: judges the caller's role, then the
// arguments' types, and turns what an operation throws into an error answer. Everything must
// outlive it. Runs on the bus's dispatch thread; RefusedCalls on any.
template <typename Target>
class OperationServer final {
 public:
  // `served` describes the table; of its counters kRefusedCalls is the server's own.
  // `on_ended_sessions` runs before the caller has the answer of an operation that ended some.
  // Throws tevra::osa::Exception when the roles are misconfigured.
  OperationServer(
      msgbus::IMsgBus* bus, Target* target, msgbus::ServedInterface served,
      std::span<const Operation<Target>> operations, core::Logger* logger,
      std::function<void()> on_ended_sessions = [] {})
      : bus_(bus),
        target_(target),
        interface_(served.name),
        logger_(logger),
        on_ended_sessions_(std::move(on_ended_sessions)) {
    try {
      for (const Operation<Target>& operation : operations) {
        handlers_.push_back(std::make_unique<Handler>(*this, operation));
        bus_->RegisterMessageHandler(operation.name, interface_, handlers_.back().get());
      }
      Describe(std::move(served));
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

  void Describe(msgbus::ServedInterface served) {
    served.counter_refusal = [this](const msgbus::Credentials& caller) {
      static constexpr Operation<Target> kRead{
          "Properties", "", Audience::kEither, Cost::kCheap, "", "", nullptr};
      MsgBusMsg request(interface_, kRead.name, "");
      request.SetSender(caller);
      const std::optional<MsgBusMsg> refusal = RefuseWithoutRole(kRead, request);
      return refusal ? refusal->ErrorText() : "";
    };
    for (msgbus::ServedCounter& counter : served.counters) {
      if (counter.name == kRefusedCalls) counter.read = [this] { return RefusedCalls(); };
    }
    bus_->Describe(served);
  }

  void Unregister() {
    bus_->Withdraw(interface_);
    for (const auto& handler : handlers_) bus_->UnregisterMessageHandler(handler.get());
  }

  bool Admits(Audience audience, const msgbus::Credentials& caller) const {
    return (audience != Audience::kAdmin && roles_.Holds(caller, CallerRoles::kService)) ||
           (audience != Audience::kService && roles_.Holds(caller, CallerRoles::kAdmin));
  }

  std::optional<MsgBusMsg> RefuseWithoutRole(const Operation<Target>& operation,
                                             const MsgBusMsg& request) {
    if (Admits(operation.audience, request.Sender())) return std::nullopt;
    // Of an operation for either role the lesser one is missing.
    const auto role =
        operation.audience == Audience::kAdmin ? CallerRoles::kAdmin : CallerRoles::kService;
    const std::string name = CallerRoles::RoleName(role);
    return Refuse(operation, request, name, ", who does not hold the role " + name,
                  CallerRoles::Refusal(role, operation.name));
  }

  MsgBusMsg Answer(const Operation<Target>& operation, const MsgBusMsg& request) {
    if (std::optional<MsgBusMsg> refusal = RefuseWithoutRole(operation, request)) {
      return *std::move(refusal);
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
  const std::string interface_;
  core::Logger* const logger_;
  const std::function<void()> on_ended_sessions_;
  const CallerRoles roles_;
  std::vector<std::unique_ptr<Handler>> handlers_;

  core::FoldedLog complaints_{logger_};  // on the bus's thread only
  std::atomic<uint64_t> refused_calls_ = 0;
};

}  // namespace tevra::interfaces

#endif  // TEVRA_INTERFACES_OPERATION_SERVER_H_

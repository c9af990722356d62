#include <atomic>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tevra/core/folded_log.h"
#include "tevra/core/logger.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/interfaces/revocation_page_writer.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/caller_roles.h"
#include "tevra/msgbus/i_msg_bus.h"
#include "tevra/osa/exception.h"

namespace tevra::interfaces {
namespace {

using msgbus::CallerRoles;
using Arguments = std::vector<msgbus::MsgBusMsg::Value>;

// The letter of a type in a message's signature.
template <typename T>
constexpr char Letter() {
  if constexpr (std::is_same_v<T, bool>) return 'b';
  if constexpr (std::is_same_v<T, int>) return 'i';
  if constexpr (std::is_same_v<T, std::string>) return 's';
  if constexpr (std::is_same_v<T, std::vector<std::string>>) return 'l';
}

template <auto method, typename Result, typename... Parameters>
struct ServedMethod {
  static constexpr char kSignature[] = {Letter<std::decay_t<Parameters>>()..., '\0'};

  static bool Run(ISecurityProvider& provider, const Arguments& arguments,
                  msgbus::MsgBusMsg& reply) {
    Run(provider, arguments, reply, std::index_sequence_for<Parameters...>());
    return false;
  }

 private:
  template <size_t... index>
  static void Run(ISecurityProvider& provider, [[maybe_unused]] const Arguments& arguments,
                  msgbus::MsgBusMsg& reply, std::index_sequence<index...>) {
    reply.Append((provider.*method)(std::get<std::decay_t<Parameters>>(arguments[index])...));
  }
};

// Decodes the arguments of an operation, calls it and encodes its result. Run tells whether clients
// must hear that sessions have ended.
template <auto method>
struct Served;
template <typename Result, typename... Parameters,
          Result (ISecurityProvider::*method)(Parameters...)>
struct Served<method> : ServedMethod<method, Result, Parameters...> {};
template <typename Result, typename... Parameters,
          Result (ISecurityProvider::*method)(Parameters...) const>
struct Served<method> : ServedMethod<method, Result, Parameters...> {};

template <>
struct Served<&ISecurityProvider::GetExpiration> {
  static constexpr char kSignature[] = "s";

  static bool Run(ISecurityProvider& provider, const Arguments& arguments,
                  msgbus::MsgBusMsg& reply) {
    std::string expires;
    const int days = provider.GetExpiration(std::get<std::string>(arguments[0]), expires);
    reply.Append(days).Append(std::move(expires));
    return false;
  }
};

template <>
struct Served<&ISecurityProvider::Invalidate> {
  static constexpr char kSignature[] = "s";

  static bool Run(ISecurityProvider& provider, const Arguments& arguments, msgbus::MsgBusMsg&) {
    provider.Invalidate(std::get<std::string>(arguments[0]));
    return true;
  }
};

template <>
struct Served<&ISecurityProvider::Logout> {
  static constexpr char kSignature[] = "s";

  static bool Run(ISecurityProvider& provider, const Arguments& arguments,
                  msgbus::MsgBusMsg& reply) {
    const std::string& token = std::get<std::string>(arguments[0]);
    // Logging out without a session succeeds too, so the result cannot tell.
    const bool lives = !provider.GetCredentials(token).empty();
    const bool done = provider.Logout(token);
    reply.Append(done);
    return lives && done;
  }
};

// Private-key operations and writes to the store take milliseconds, all else microseconds.
enum class Cost { kCheap, kDear };

struct Operation {
  const char* name;
  CallerRoles::Role role;
  Cost cost;
  std::string_view signature;
  bool (*run)(ISecurityProvider&, const Arguments&, msgbus::MsgBusMsg& reply);
};

template <auto method>
constexpr Operation Serve(const char* name, CallerRoles::Role role, Cost cost = Cost::kCheap) {
  return {name, role, cost, Served<method>::kSignature, &Served<method>::Run};
}

// What the bus offers, to whom; nothing else is served.
constexpr Operation kOperations[] = {
    Serve<&ISecurityProvider::Authenticate>("Authenticate", CallerRoles::kService, Cost::kDear),
    Serve<&ISecurityProvider::AuthenticateHttp>("AuthenticateHttp", CallerRoles::kService),
    Serve<&ISecurityProvider::AuthenticateWsse>("AuthenticateWsse", CallerRoles::kService,
                                                Cost::kDear),
    Serve<&ISecurityProvider::TestLdap>("TestLdap", CallerRoles::kService),
    Serve<&ISecurityProvider::Invalidate>("Invalidate", CallerRoles::kAdmin),
    Serve<&ISecurityProvider::IsAuthenticated>("IsAuthenticated", CallerRoles::kService),
    Serve<&ISecurityProvider::IsProtected>("IsProtected", CallerRoles::kService),
    Serve<&ISecurityProvider::GetAllowedPaths>("GetAllowedPaths", CallerRoles::kService),
    Serve<&ISecurityProvider::GetAllowedPermissions>("GetAllowedPermissions",
                                                     CallerRoles::kService),
    Serve<&ISecurityProvider::GetCredentials>("GetCredentials", CallerRoles::kService),
    Serve<&ISecurityProvider::GetExpiration>("GetExpiration", CallerRoles::kService),
    Serve<&ISecurityProvider::Authorize>("Authorize", CallerRoles::kService),
    Serve<&ISecurityProvider::Logout>("Logout", CallerRoles::kService),
    Serve<&ISecurityProvider::AllowHttpDigest>("AllowHttpDigest", CallerRoles::kService),
    Serve<&ISecurityProvider::GetNonce>("GetNonce", CallerRoles::kService),
    Serve<&ISecurityProvider::GetUsers>("GetUsers", CallerRoles::kAdmin),
    Serve<&ISecurityProvider::AddUsers>("AddUsers", CallerRoles::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::ModifyUsers>("ModifyUsers", CallerRoles::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::DeleteUsers>("DeleteUsers", CallerRoles::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::ValidatePassword>("ValidatePassword", CallerRoles::kAdmin,
                                                Cost::kDear),
    Serve<&ISecurityProvider::AddPassphrase>("AddPassphrase", CallerRoles::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::GetPassphrases>("GetPassphrases", CallerRoles::kAdmin),
    Serve<&ISecurityProvider::GetPassphrase>("GetPassphrase", CallerRoles::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::DeletePassphrase>("DeletePassphrase", CallerRoles::kAdmin,
                                                Cost::kDear),
};

class SecurityProviderServer final : public ISecurityProvider::IServer {
 public:
  SecurityProviderServer(msgbus::IMsgBus* bus, ISecurityProvider* provider);
  ~SecurityProviderServer() override;

  uint64_t RefusedCalls() const override { return refused_calls_; }

 private:
  class OperationHandler final : public msgbus::IMessageHandler {
   public:
    OperationHandler(SecurityProviderServer& server, const Operation& operation)
        : server_(server), operation_(operation) {}
    void HandleMessage(msgbus::IMsgBus& bus, msgbus::MsgBusMsg& message) override {
      bus.SendReply(server_.Answer(operation_, message));
    }
    bool IsDear() const override { return operation_.cost == Cost::kDear; }

   private:
    SecurityProviderServer& server_;
    const Operation& operation_;
  };
  using ChangeListener =
      core::VoidObjectMethodDelegate1<SecurityProviderServer,
                                      void (SecurityProviderServer::*)(const bool&), bool>;

  using EndListener = core::VoidObjectMethodDelegate1<
      SecurityProviderServer, void (SecurityProviderServer::*)(const std::string&), std::string>;

  void Open();
  void SharePage();
  void Close();
  msgbus::MsgBusMsg Answer(const Operation& operation, const msgbus::MsgBusMsg& request);
  msgbus::MsgBusMsg Run(const Operation& operation, const msgbus::MsgBusMsg& request);
  msgbus::MsgBusMsg Refuse(const Operation& operation, const msgbus::MsgBusMsg& request);
  void OnChange(const bool& value);
  void OnSessionEnd(const std::string& token);
  void Broadcast(bool value);

  // Constant after construction.
  msgbus::IMsgBus* const bus_;
  ISecurityProvider* const provider_;
  core::Logger* const logger_;
  const CallerRoles roles_;
  std::vector<std::unique_ptr<OperationHandler>> handlers_;
  std::optional<RevocationPageWriter> page_;  // none where the bus hands out none
  uint64_t renewal_ = 0;

  core::FoldedLog complaints_{logger_};  // on the bus's thread only
  std::atomic<uint64_t> refused_calls_ = 0;
};

SecurityProviderServer::SecurityProviderServer(msgbus::IMsgBus* bus, ISecurityProvider* provider)
    : bus_(bus), provider_(provider), logger_(core::Logger::GetLogger("SecurityProviderServer")) {
  try {
    Open();
  } catch (...) {
    Close();
    throw;
  }
}

SecurityProviderServer::~SecurityProviderServer() {
  bus_->UnregisterDestinationName(ISecurityProvider::kDestination);
  Close();
}

void SecurityProviderServer::Open() {
  for (const Operation& operation : kOperations) {
    handlers_.push_back(std::make_unique<OperationHandler>(*this, operation));
    bus_->RegisterMessageHandler(operation.name, ISecurityProvider::kInterface,
                                 handlers_.back().get());
  }
  provider_->AddChangeListener(
      std::make_unique<ChangeListener>(this, &SecurityProviderServer::OnChange));
  SharePage();
  // Last, so that no client finds the service before it can answer.
  bus_->RegisterDestinationName(ISecurityProvider::kDestination);
}

// Without a page clients ask every time; that is no reason not to answer them.
void SecurityProviderServer::SharePage() {
  if (bus_->Instance() == 0) return;
  try {
    page_.emplace(bus_->Instance());
  } catch (const osa::Exception& e) {
    logger_->Error("Clients keep no answers: %s", e.what());
    return;
  }
  provider_->AddSessionEndListener(
      std::make_unique<EndListener>(this, &SecurityProviderServer::OnSessionEnd));
  // On the thread that answers requests: when it hangs, what clients keep must end.
  renewal_ = bus_->StartTimer(RevocationPageWriter::kRenewal, [this] { page_->Renew(); });
  bus_->ShareDescriptor(ISecurityProvider::kDestination, page_->Memory().get());
}

void SecurityProviderServer::Close() {
  for (const auto& handler : handlers_) bus_->UnregisterMessageHandler(handler.get());
  provider_->RemoveChangeListeners(this);
  provider_->RemoveSessionEndListeners(this);
  if (page_) bus_->StopTimer(renewal_);
}

msgbus::MsgBusMsg SecurityProviderServer::Answer(const Operation& operation,
                                                 const msgbus::MsgBusMsg& request) {
  if (!roles_.Holds(request.Sender(), operation.role)) return Refuse(operation, request);
  if (request.Signature() != operation.signature) {
    const std::string text = std::string(operation.name) + " takes (" +
                             std::string(operation.signature) + "), not (" + request.Signature() +
                             ")";
    complaints_.Write(core::Logger::kInformation, request.Sender().uid, "malformed",
                      "Malformed call: " + text);
    return msgbus::MsgBusMsg::ErrorTo(request, msgbus::BusError::kInvalidArgs, text);
  }
  try {
    return Run(operation, request);
  } catch (const osa::Exception& e) {
    const bool unimplemented = e.code() == osa::Exception::kUnimplemented;
    if (!unimplemented) logger_->Error("%s failed: %s", operation.name, e.what());
    return msgbus::MsgBusMsg::ErrorTo(
        request, unimplemented ? msgbus::BusError::kNotSupported : msgbus::BusError::kFailed,
        e.what());
  } catch (const std::exception& e) {
    logger_->Error("%s failed: %s", operation.name, e.what());
    return msgbus::MsgBusMsg::ErrorTo(request, msgbus::BusError::kFailed, e.what());
  }
}

msgbus::MsgBusMsg SecurityProviderServer::Run(const Operation& operation,
                                              const msgbus::MsgBusMsg& request) {
  msgbus::MsgBusMsg reply = msgbus::MsgBusMsg::ReplyTo(request);
  // Clients hear of the end before the caller has its answer.
  if (operation.run(*provider_, request.Body(), reply)) Broadcast(false);
  return reply;
}

msgbus::MsgBusMsg SecurityProviderServer::Refuse(const Operation& operation,
                                                 const msgbus::MsgBusMsg& request) {
  const uint64_t count = ++refused_calls_;
  const uid_t user = request.Sender().uid;
  const std::string role = CallerRoles::RoleName(operation.role);
  complaints_.Write(core::Logger::kNotice, user, role,
                    std::string("Refused ") + operation.name + " to user " + std::to_string(user) +
                        ", who does not hold the role " + role + " (refusal " +
                        std::to_string(count) + ")");
  return msgbus::MsgBusMsg::ErrorTo(request, msgbus::BusError::kAccessDenied,
                                    CallerRoles::Refusal(operation.role, operation.name));
}

// The page first, and both before the caller of the changing operation is answered: by then no
// client may use an answer of before the change.
void SecurityProviderServer::OnChange(const bool& value) {
  if (page_) page_->RaiseEpoch();
  Broadcast(value);
}

void SecurityProviderServer::OnSessionEnd(const std::string& token) {
  page_->EndSession(token);
}

void SecurityProviderServer::Broadcast(bool value) {
  msgbus::MsgBusMsg signal(ISecurityProvider::kInterface, ISecurityProvider::kChangedSignal, "");
  signal.Append(value);
  try {
    bus_->SendMsg(signal);
  } catch (const std::exception& e) {
    // The change stands whether or not anyone hears of it.
    logger_->Debug("The change was not broadcast: %s", e.what());
  }
}

}  // namespace

ISecurityProvider::IServer* ISecurityProvider::CreateServer(msgbus::IMsgBus* bus,
                                                            ISecurityProvider* provider) {
  return new SecurityProviderServer(bus, provider);
}

}  // namespace tevra::interfaces

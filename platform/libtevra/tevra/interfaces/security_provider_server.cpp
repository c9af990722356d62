#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "tevra/core/logger.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/interfaces/operation_server.h"
#include "tevra/interfaces/revocation_page_writer.h"
#include "tevra/msgbus/i_msg_bus.h"
#include "tevra/msgbus/served_operation.h"
#include "tevra/osa/exception.h"

namespace tevra::interfaces {

template <>
struct Served<&ISecurityProvider::GetExpiration> {
  static constexpr std::string_view kSignature = kSignatureOf<std::string>;

  static bool Run(ISecurityProvider& provider, const Call& call, msgbus::MsgBusMsg& reply) {
    std::string expires;
    const int days = provider.GetExpiration(WireType<std::string>::Get(call, 0), expires);
    reply.Append(days).Append(std::move(expires));
    return false;
  }
};

template <>
struct Served<&ISecurityProvider::Invalidate> {
  static constexpr std::string_view kSignature = kSignatureOf<std::string>;

  static bool Run(ISecurityProvider& provider, const Call& call, msgbus::MsgBusMsg&) {
    provider.Invalidate(WireType<std::string>::Get(call, 0));
    return true;
  }
};

template <>
struct Served<&ISecurityProvider::Logout> {
  static constexpr std::string_view kSignature = kSignatureOf<std::string>;

  static bool Run(ISecurityProvider& provider, const Call& call, msgbus::MsgBusMsg& reply) {
    const std::string& token = WireType<std::string>::Get(call, 0);
    // Logging out without a session succeeds too, so the result cannot tell.
    const bool lives = !provider.GetCredentials(token).empty();
    const bool done = provider.Logout(token);
    reply.Append(done);
    return lives && done;
  }
};

namespace {

// What the bus offers, to whom; nothing else is served.
constexpr Operation<ISecurityProvider> kOperations[] = {
    Serve<&ISecurityProvider::Authenticate>("Authenticate", Audience::kService, Cost::kDear),
    Serve<&ISecurityProvider::AuthenticateHttp>("AuthenticateHttp", Audience::kService),
    Serve<&ISecurityProvider::AuthenticateWsse>("AuthenticateWsse", Audience::kService,
                                                Cost::kDear),
    Serve<&ISecurityProvider::TestLdap>("TestLdap", Audience::kService),
    Serve<&ISecurityProvider::Invalidate>("Invalidate", Audience::kAdmin),
    Serve<&ISecurityProvider::IsAuthenticated>("IsAuthenticated", Audience::kService),
    Serve<&ISecurityProvider::IsProtected>("IsProtected", Audience::kService),
    Serve<&ISecurityProvider::GetAllowedPaths>("GetAllowedPaths", Audience::kService),
    Serve<&ISecurityProvider::GetAllowedPermissions>("GetAllowedPermissions", Audience::kService),
    Serve<&ISecurityProvider::GetCredentials>("GetCredentials", Audience::kService),
    Serve<&ISecurityProvider::GetExpiration>("GetExpiration", Audience::kService),
    Serve<&ISecurityProvider::Authorize>("Authorize", Audience::kService),
    Serve<&ISecurityProvider::Logout>("Logout", Audience::kService),
    Serve<&ISecurityProvider::AllowHttpDigest>("AllowHttpDigest", Audience::kService),
    Serve<&ISecurityProvider::GetNonce>("GetNonce", Audience::kService),
    Serve<&ISecurityProvider::GetUsers>("GetUsers", Audience::kAdmin),
    Serve<&ISecurityProvider::AddUsers>("AddUsers", Audience::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::ModifyUsers>("ModifyUsers", Audience::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::DeleteUsers>("DeleteUsers", Audience::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::ValidatePassword>("ValidatePassword", Audience::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::AddPassphrase>("AddPassphrase", Audience::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::GetPassphrases>("GetPassphrases", Audience::kAdmin),
    Serve<&ISecurityProvider::GetPassphrase>("GetPassphrase", Audience::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::DeletePassphrase>("DeletePassphrase", Audience::kAdmin, Cost::kDear),
};

class SecurityProviderServer final : public ISecurityProvider::IServer {
 public:
  SecurityProviderServer(msgbus::IMsgBus* bus, ISecurityProvider* provider);
  ~SecurityProviderServer() override;

  uint64_t RefusedCalls() const override { return operations_->RefusedCalls(); }

 private:
  using ChangeListener =
      core::VoidObjectMethodDelegate1<SecurityProviderServer,
                                      void (SecurityProviderServer::*)(const bool&), bool>;

  using EndListener = core::VoidObjectMethodDelegate1<
      SecurityProviderServer, void (SecurityProviderServer::*)(const std::string&), std::string>;

  void Open();
  void SharePage();
  void Close();
  void OnChange(const bool& value);
  void OnSessionEnd(const std::string& token);
  void Broadcast(bool value);

  // Constant after construction.
  msgbus::IMsgBus* const bus_;
  ISecurityProvider* const provider_;
  core::Logger* const logger_;
  std::optional<OperationServer<ISecurityProvider>> operations_;
  std::optional<RevocationPageWriter> page_;  // none where the bus hands out none
  uint64_t renewal_ = 0;
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
  operations_.emplace(bus_, provider_, ISecurityProvider::kInterface, kOperations, logger_,
                      [this] { Broadcast(false); });
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
  operations_.reset();
  provider_->RemoveChangeListeners(this);
  provider_->RemoveSessionEndListeners(this);
  if (page_) bus_->StopTimer(renewal_);
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

std::vector<msgbus::ServedOperation> ISecurityProvider::ServedOperations() {
  return RowsOf(kOperations, kInterface);
}

ISecurityProvider::IServer* ISecurityProvider::CreateServer(msgbus::IMsgBus* bus,
                                                            ISecurityProvider* provider) {
  return new SecurityProviderServer(bus, provider);
}

}  // namespace tevra::interfaces

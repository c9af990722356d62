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
#include "tevra/msgbus/served_interface.h"
#include "tevra/osa/exception.h"

namespace tevra::interfaces {

template <>
struct Served<&ISecurityProvider::GetExpiration> {
  static constexpr std::string_view kSignature = kSignatureOf<std::string>;
  static constexpr std::string_view kResults = kSignatureOf<int32_t, std::string>;

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
  static constexpr std::string_view kResults = "";

  static bool Run(ISecurityProvider& provider, const Call& call, msgbus::MsgBusMsg&) {
    provider.Invalidate(WireType<std::string>::Get(call, 0));
    return true;
  }
};

template <>
struct Served<&ISecurityProvider::Logout> {
  static constexpr std::string_view kSignature = kSignatureOf<std::string>;
  static constexpr std::string_view kResults = kSignatureOf<bool>;

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
    Serve<&ISecurityProvider::Authenticate>("Authenticate", "reuse user64 password64 -> token",
                                            Audience::kService, Cost::kDear),
    Serve<&ISecurityProvider::AuthenticateHttp>(
        "AuthenticateHttp", "reuse username nonce ha2 sess qop cnonce nc response -> token",
        Audience::kService),
    Serve<&ISecurityProvider::AuthenticateWsse>("AuthenticateWsse",
                                                "reuse username digest nonce created -> token",
                                                Audience::kService, Cost::kDear),
    Serve<&ISecurityProvider::TestLdap>("TestLdap", "a b c d e f g h i j k -> works",
                                        Audience::kService),
    Serve<&ISecurityProvider::Invalidate>("Invalidate", "name", Audience::kAdmin),
    Serve<&ISecurityProvider::IsAuthenticated>("IsAuthenticated", "token -> authenticated",
                                               Audience::kService),
    Serve<&ISecurityProvider::IsProtected>("IsProtected", "path -> protected", Audience::kService),
    Serve<&ISecurityProvider::GetAllowedPaths>("GetAllowedPaths", "token -> paths",
                                               Audience::kService),
    Serve<&ISecurityProvider::GetAllowedPermissions>("GetAllowedPermissions",
                                                     "token -> permissions", Audience::kService),
    Serve<&ISecurityProvider::GetCredentials>("GetCredentials", "token -> credentials",
                                              Audience::kService),
    Serve<&ISecurityProvider::GetExpiration>("GetExpiration", "name -> days expires",
                                             Audience::kService),
    Serve<&ISecurityProvider::Authorize>("Authorize", "token path -> granted", Audience::kService),
    Serve<&ISecurityProvider::Logout>("Logout", "token -> done", Audience::kService),
    Serve<&ISecurityProvider::AllowHttpDigest>("AllowHttpDigest", "-> allowed", Audience::kService),
    Serve<&ISecurityProvider::GetNonce>("GetNonce", "-> nonce", Audience::kService),
    Serve<&ISecurityProvider::GetUsers>("GetUsers", "-> users", Audience::kAdmin),
    Serve<&ISecurityProvider::AddUsers>("AddUsers", "users -> code", Audience::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::ModifyUsers>("ModifyUsers", "users -> code", Audience::kAdmin,
                                           Cost::kDear),
    Serve<&ISecurityProvider::DeleteUsers>("DeleteUsers", "names -> code", Audience::kAdmin,
                                           Cost::kDear),
    Serve<&ISecurityProvider::ValidatePassword>("ValidatePassword", "name current proposed -> code",
                                                Audience::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::AddPassphrase>("AddPassphrase", "phrase alias -> id",
                                             Audience::kAdmin, Cost::kDear),
    Serve<&ISecurityProvider::GetPassphrases>("GetPassphrases", "-> passphrases", Audience::kAdmin),
    Serve<&ISecurityProvider::GetPassphrase>("GetPassphrase", "id -> phrase", Audience::kAdmin,
                                             Cost::kDear),
    Serve<&ISecurityProvider::DeletePassphrase>("DeletePassphrase", "id -> done", Audience::kAdmin,
                                                Cost::kDear),
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
  operations_.emplace(bus_, provider_, ISecurityProvider::Description(), kOperations, logger_,
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

msgbus::ServedInterface ISecurityProvider::Description() {
  msgbus::ServedInterface served = DescriptionOf(kOperations, kInterface);
  served.signals.push_back({kChangedSignal, {{WireType<bool>::kLetter, "accounts_or_rules"}}});
  return served;
}

ISecurityProvider::IServer* ISecurityProvider::CreateServer(msgbus::IMsgBus* bus,
                                                            ISecurityProvider* provider) {
  return new SecurityProviderServer(bus, provider);
}

}  // namespace tevra::interfaces

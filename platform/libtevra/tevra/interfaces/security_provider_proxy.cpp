#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tevra/core/logger.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/interfaces/operation_proxy.h"
#include "tevra/interfaces/revocation_page.h"
#include "tevra/msgbus/i_msg_bus.h"

namespace tevra::interfaces {
namespace {

using msgbus::MsgBusMsg;

constexpr size_t kMaxTokenBytes = 8;
constexpr size_t kMaxNonceBytes = 32;

class SecurityProviderProxy final : public ISecurityProvider, private msgbus::IMessageHandler {
 public:
  SecurityProviderProxy(msgbus::IMsgBus* bus, bool listens);
  ~SecurityProviderProxy() override;

  std::string Authenticate(bool reuse, const std::string& user64,
                           const std::string& password64) override {
    return Token("Authenticate", reuse, user64, password64);
  }
  std::string AuthenticateHttp(bool reuse, const std::string& username, const std::string& nonce,
                               const std::string& ha2, bool sess, const std::string& qop,
                               const std::string& cnonce, const std::string& nc,
                               const std::string& response) override {
    return Token("AuthenticateHttp", reuse, username, nonce, ha2, sess, qop, cnonce, nc, response);
  }
  std::string AuthenticateWsse(bool reuse, const std::string& username, const std::string& digest,
                               const std::string& nonce, const std::string& created) override {
    return Token("AuthenticateWsse", reuse, username, digest, nonce, created);
  }
  bool TestLdap(const std::string& a, const std::string& b, const std::string& c, int d,
                const std::string& e, const std::string& f, const std::string& g,
                const std::string& h, const std::string& i, const std::string& j,
                const std::string& k) const override {
    return Call<bool>("TestLdap", a, b, c, d, e, f, g, h, i, j, k);
  }
  void Invalidate(const std::string& name) override { Exchange("Invalidate", "", name); }
  bool IsAuthenticated(const std::string& token) override {
    return Call<bool>("IsAuthenticated", token);
  }
  bool IsProtected(const std::string& path) const override {
    return Call<bool>("IsProtected", path);
  }
  std::vector<std::string> GetAllowedPaths(const std::string& token) const override {
    return Call<std::vector<std::string>>("GetAllowedPaths", token);
  }
  std::vector<std::string> GetAllowedPermissions(const std::string& token) const override {
    return Call<std::vector<std::string>>("GetAllowedPermissions", token);
  }
  std::string GetCredentials(const std::string& token) const override {
    return Call<std::string>("GetCredentials", token);
  }
  int GetExpiration(const std::string& name, std::string& expires) const override;
  bool Authorize(const std::string& token, const std::string& path) override {
    return Call<bool>("Authorize", token, path);
  }
  bool Logout(const std::string& token) override { return Call<bool>("Logout", token); }
  bool AllowHttpDigest() const override { return Call<bool>("AllowHttpDigest"); }
  std::string GetNonce() override { return Short("GetNonce", kMaxNonceBytes); }
  std::string GetUsers() const override { return Call<std::string>("GetUsers"); }
  int AddUsers(const std::string& json) override { return Call<int>("AddUsers", json); }
  int ModifyUsers(const std::string& json) override { return Call<int>("ModifyUsers", json); }
  int DeleteUsers(const std::vector<std::string>& names) override {
    return Call<int>("DeleteUsers", names);
  }
  int ValidatePassword(const std::string& name, const std::string& current,
                       const std::string& proposed) const override {
    return Call<int>("ValidatePassword", name, current, proposed);
  }
  std::string AddPassphrase(const std::string& phrase, const std::string& alias) override {
    return Call<std::string>("AddPassphrase", phrase, alias);
  }
  std::string GetPassphrases() const override { return Call<std::string>("GetPassphrases"); }
  std::string GetPassphrase(const std::string& id) const override {
    return Call<std::string>("GetPassphrase", id);
  }
  bool DeletePassphrase(const std::string& id) override {
    return Call<bool>("DeletePassphrase", id);
  }

 private:
  void HandleMessage(msgbus::IMsgBus& bus, MsgBusMsg& message) override;
  void Unregister();
  void FollowPage();

  // As OperationProxy's.
  template <typename... Arguments>
  std::unique_ptr<MsgBusMsg> Exchange(const char* operation, const char* signature,
                                      const Arguments&... arguments) const {
    return proxy_.Exchange(operation, signature, arguments...);
  }
  template <typename Result, typename... Arguments>
  Result Call(const char* operation, const Arguments&... arguments) const {
    return proxy_.Call<Result>(operation, arguments...);
  }
  // A text that cannot be longer than `maximum`: callers copy it into buffers of that size.
  template <typename... Arguments>
  std::string Short(const char* operation, size_t maximum, const Arguments&... arguments) const {
    std::string text = Call<std::string>(operation, arguments...);
    if (text.size() > maximum) {
      OperationProxy::ThrowMalformed(operation,
                                     "a text of " + std::to_string(text.size()) + " bytes");
    }
    return text;
  }
  template <typename... Arguments>
  std::string Token(const char* operation, const Arguments&... arguments) const {
    return Short(operation, kMaxTokenBytes, arguments...);
  }

  msgbus::IMsgBus* const bus_;
  const bool listens_;
  core::Logger* const logger_;
  const OperationProxy proxy_;
  // On the bus's thread only: what stands for the server's page where none is handed out, the count
  // of notifications.
  std::shared_ptr<RevocationPage> heard_;
};

SecurityProviderProxy::SecurityProviderProxy(msgbus::IMsgBus* bus, bool listens)
    : bus_(bus),
      listens_(listens),
      logger_(core::Logger::GetLogger("SecurityProviderProxy")),
      proxy_(bus, kInterface, kDestination, [this](const MsgBusMsg& answer) {
        if (answer.Instance() != 0) NoteAnswerOf(answer.Instance());
      }) {
  // Of a server that is not watched no answer can be kept.
  if (bus_->HasPeers()) SetRevocationPage(nullptr);
  if (!listens_) return;
  try {
    bus_->RegisterMessageHandler(kChangedSignal, kInterface, this);
    bus_->RegisterMessageHandler(msgbus::IMsgBus::kDestinationAppeared,
                                 msgbus::IMsgBus::kLocalInterface, this);
    bus_->RegisterMessageHandler(msgbus::IMsgBus::kDestinationVanished,
                                 msgbus::IMsgBus::kLocalInterface, this);
    bus_->WatchDestination(kDestination);
  } catch (...) {
    Unregister();
    throw;
  }
}

SecurityProviderProxy::~SecurityProviderProxy() {
  if (listens_) Unregister();
}

void SecurityProviderProxy::Unregister() {
  // Once for each of the three names.
  for (int i = 0; i < 3; ++i) bus_->UnregisterMessageHandler(this);
}

int SecurityProviderProxy::GetExpiration(const std::string& name, std::string& expires) const {
  const auto reply = Exchange("GetExpiration", "is", name);
  expires = std::get<std::string>(reply->Body()[1]);
  return std::get<int32_t>(reply->Body()[0]);
}

void SecurityProviderProxy::HandleMessage(msgbus::IMsgBus&, MsgBusMsg& message) {
  if (message.GetName() == kChangedSignal) {
    if (message.Signature() != "b") {
      logger_->Information("Malformed change notification (%s)", message.Signature().c_str());
      return;
    }
    if (heard_) heard_->RaiseEpoch();
    FireChangeListeners(std::get<bool>(message.Body()[0]));
    return;
  }
  if (message.Signature() != "s" || std::get<std::string>(message.Body()[0]) != kDestination) {
    return;
  }
  if (message.GetName() == msgbus::IMsgBus::kDestinationAppeared) {
    FollowPage();
  } else {
    SetRevocationPage(nullptr);
  }
  // A server that appears may be another one than the one that gave the earlier answers, and one
  // that has vanished cannot take them back.
  FireChangeListeners(true);
}

void SecurityProviderProxy::FollowPage() {
  const msgbus::IMsgBus::Shared shared = bus_->SharedDescriptor(kDestination);
  if (shared.instance == 0) {
    heard_ = std::make_shared<RevocationPage>(0);
    return SetRevocationPage(heard_);
  }
  heard_.reset();
  std::shared_ptr<const RevocationPage> page;
  if (shared.descriptor) page = RevocationPage::Map(*shared.descriptor);
  if (page && page->Instance() != shared.instance) page.reset();
  if (!page) logger_->Information("No revocation page: no answer is kept");
  SetRevocationPage(std::move(page));
}

}  // namespace

ISecurityProvider* ISecurityProvider::CreateClient(msgbus::IMsgBus* bus) {
  return new SecurityProviderProxy(bus, true);
}

ISecurityProvider* ISecurityProvider::CreateOneShotClient(msgbus::IMsgBus* bus) {
  return new SecurityProviderProxy(bus, false);
}

}  // namespace tevra::interfaces

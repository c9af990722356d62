#include "vigila-gateway/gateway.h"

#include <optional>
#include <utility>

#include "tevra/core/secret_text.h"
namespace vigila::gateway {
namespace {

constexpr char kAuthPath[] = "/auth";
constexpr char kHealthPath[] = "/healthz";
constexpr char kLogoutPath[] = "/logout";

}  // namespace

class Gateway::Exchange final : public HttpExchange {
 public:
  Exchange(Gateway& gateway, HttpRequest request)
      : gateway_(gateway),
        request_(std::move(request)),
        target_(ParseRequestTarget(request_.target)),
        source_(gateway.proxies_.SourceOf(request_)) {
    const std::string_view type = request_.Only("Content-Type");
    if (!target_ || request_.method != "POST" || !IsSoapMediaType(type)) return;
    if (target_->path == kAuthPath) envelope_.emplace();
    if (!WebService::Serves(target_->path)) return;
    call_.emplace(gateway_.web_service_, gateway_.authenticator_, source_, target_->path,
                  SoapVersionOf(type));
  }

  // They may hold passwords, which must not outlive their use.
  ~Exchange() override {
    for (auto& [name, value] : request_.headers) {
      if (EqualIgnoringCase(name, "Authorization")) tevra::core::Wipe(value);
    }
  }

  void Receive(std::string_view chunk) override {
    if (call_) call_->Receive(chunk);
    if (envelope_) envelope_->Receive(chunk);
  }

  HttpResponse Answer(Body body) override {
    HttpResponse response = Respond(body);
    const auto duration = std::chrono::steady_clock::now() - started_;
    gateway_.metrics_.CountRequest(handler_, response.status, duration);
    if (response.status == 429) gateway_.metrics_.CountRateLimited();
    AccessRecord record;
    record.time = std::chrono::system_clock::now();
    record.source = source_;
    record.method = request_.method;
    record.path = asked_about_;
    record.handler = handler_;
    record.user = user_;
    record.status = response.status;
    record.bytes = response.body.size();
    record.duration = std::chrono::duration_cast<std::chrono::microseconds>(duration);
    gateway_.log_(record);
    return response;
  }

 private:
  HttpResponse Respond(Body body) {
    if (!target_) return TextResponse(400, "The address cannot be understood.");
    asked_about_ = target_->path;
    if (call_) {
      handler_ = "service";
      HttpResponse response = call_->Answer(body);
      user_ = call_->User();
      return response;
    }
    if (body == Body::kTooLarge) return TextResponse(413, "The request is too large.");
    if (target_->path == kAuthPath) {
      handler_ = "auth";
      return gateway_.forward_auth_.Respond(request_, envelope_ ? &*envelope_ : nullptr,
                                            asked_about_, user_);
    }
    if (target_->path == kHealthPath) {
      handler_ = "health";
      return gateway_.RespondHealth();
    }
    return gateway_.RespondSite(request_, *target_, user_);
  }

  Gateway& gateway_;
  HttpRequest request_;
  const std::optional<RequestTarget> target_;
  const std::string source_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  std::optional<WebServiceCall> call_;
  std::optional<WsseEnvelope> envelope_;  // of a web-service request that a proxy asks about
  const char* handler_ = "site";
  std::string asked_about_;  // the path
  std::string user_;
};

Gateway::Gateway(AuthService& service, Metrics& metrics, std::unique_ptr<StaticFiles> files,
                 const Options& options, Log log)
    : service_(service),
      metrics_(metrics),
      log_(std::move(log)),
      response_options_{options.secure_cookie, options.basic},
      proxies_(options.trusted_proxies),
      rate_limiter_(options.rate_limit, &std::chrono::steady_clock::now),
      nonces_(service_, &std::chrono::steady_clock::now),
      used_tokens_({}, {}),
      authenticator_(service_, rate_limiter_, nonces_, used_tokens_, {options.basic}),
      forward_auth_(service_, authenticator_, proxies_, response_options_),
      site_(std::move(files)),
      web_service_(options.device_name, &std::chrono::system_clock::now) {}

Gateway::~Gateway() = default;

std::unique_ptr<HttpExchange> Gateway::Open(HttpRequest request) {
  return std::make_unique<Exchange>(*this, std::move(request));
}

AccessQuestion Gateway::QuestionOf(const HttpRequest& request, const RequestTarget& target) const {
  AccessQuestion question;
  question.source = proxies_.SourceOf(request);
  question.method = request.method;
  question.target = target;
  question.cookies = request.Values("Cookie");
  question.authorizations = request.Values("Authorization");
  return question;
}

HttpResponse Gateway::RespondSite(const HttpRequest& request, const RequestTarget& target,
                                  std::string& user) {
  const AccessQuestion question = QuestionOf(request, target);
  const bool leaving = target.path == kLogoutPath;
  const Verdict verdict =
      leaving ? authenticator_.LogOut(question) : authenticator_.Decide(question);
  if (verdict.outcome != Verdict::kGranted) return RefusalResponse(verdict, response_options_);
  user = verdict.user;
  HttpResponse response = leaving ? TextResponse(200, "You are logged out.")
                                  : site_.Respond(request.method, target.path);
  response.headers.emplace_back("Cache-Control", "no-store");
  AddSessionCookie(verdict, response_options_, response);
  return response;
}

HttpResponse Gateway::RespondHealth() {
  return service_.IsReachable()
             ? TextResponse(200, "ok")
             : TextResponse(503, "The authentication service cannot be reached.");
}

}  // namespace vigila::gateway

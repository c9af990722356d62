#include "vigila-gateway/auth/forward_auth.h"

#include <optional>
#include <string>

#include "tevra/core/hexadecimal.h"
#include "vigila-gateway/auth/group_names.h"
#include "vigila-gateway/soap/web_service.h"

namespace vigila::gateway {
namespace {

struct OriginalRequest {
  std::string method;
  std::string target;
};

// The value of the one header of the two that was sent; nothing when both or neither were.
std::optional<std::string> EitherOf(const HttpRequest& request, const char* one,
                                    const char* other) {
  std::vector<std::string_view> values = request.Values(one);
  const std::vector<std::string_view> others = request.Values(other);
  values.insert(values.end(), others.begin(), others.end());
  if (values.size() != 1) return std::nullopt;
  return std::string(values.front());
}

std::optional<OriginalRequest> OriginalOf(const HttpRequest& request) {
  const auto method = EitherOf(request, "X-Original-Method", "X-Forwarded-Method");
  const auto target = EitherOf(request, "X-Original-URI", "X-Forwarded-Uri");
  if (!method || method->empty() || !target) return std::nullopt;
  return OriginalRequest{*method, *target};
}

// A name goes into a header as it is when it can stand there, else percent-encoded.
std::string HeaderText(const std::string& name) {
  std::string text;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte > 0x20 && byte < 0x7f && c != '%') {
      text.push_back(c);
    } else {
      text.push_back('%');
      tevra::core::AppendHexadecimal(c, text, tevra::core::LetterCase::kUpper);
    }
  }
  return text;
}

}  // namespace

HttpResponse ForwardAuth::Respond(const HttpRequest& request, const WsseEnvelope* envelope,
                                  std::string& path, std::string& user) {
  if (!proxies_.Trusts(request.peer)) return TextResponse(403, "This proxy is not trusted.");
  const std::optional<OriginalRequest> original = OriginalOf(request);
  std::optional<RequestTarget> target;
  if (original) target = ParseRequestTarget(original->target);
  if (!target) return TextResponse(400, "The original request cannot be understood.");

  path = target->path;
  AccessQuestion question;
  question.source = proxies_.SourceOf(request);
  question.method = original->method;
  question.target = *std::move(target);
  question.cookies = request.Values("Cookie");
  question.authorizations = request.Values("Authorization");
  const bool web_service = envelope != nullptr && WebService::Serves(question.target.path);
  const Verdict verdict = web_service ? DecideEnvelope(question, *envelope)
                                      : authenticator_.Name(authenticator_.Decide(question));
  return verdict.outcome == Verdict::kGranted ? Granted(verdict, user)
                                              : RefusalResponse(verdict, options_);
}

Verdict ForwardAuth::DecideEnvelope(const AccessQuestion& question, const WsseEnvelope& envelope) {
  Verdict verdict;
  switch (envelope.Judge()) {
    case WsseEnvelope::kMalformed:
      verdict.outcome = Verdict::kMalformed;
      break;
    case WsseEnvelope::kNoLogon:
      verdict = authenticator_.Challenge();
      break;
    case WsseEnvelope::kLogon:
      verdict = authenticator_.DecideWsse(question.source, envelope.Logon(),
                                          {WebService::kRule, question.target.path});
      verdict.new_session = false;  // the next envelope brings its own logon
  }
  return verdict;
}

HttpResponse ForwardAuth::Granted(const Verdict& verdict, std::string& user) {
  HttpResponse response = TextResponse(200, "Granted.");
  response.headers.emplace_back("Cache-Control", "no-store");
  if (!verdict.token.empty()) {
    user = verdict.user;
    response.headers.emplace_back("X-Auth-User", HeaderText(user));
    response.headers.emplace_back("X-Auth-Groups",
                                  GroupNames(service_.GetPermissions(verdict.token)));
  }
  AddSessionCookie(verdict, options_, response);
  return response;
}

}  // namespace vigila::gateway

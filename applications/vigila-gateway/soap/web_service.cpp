#include "vigila-gateway/soap/web_service.h"

#include <ctime>

#include "vigila-gateway/soap/xml_text.h"

namespace vigila::gateway {
namespace {

constexpr char kFolder[] = "/onvif/";

std::string TimeText(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm utc = {};
  gmtime_r(&seconds, &utc);
  char text[32];
  return std::string(text, std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc));
}

}  // namespace

bool WebService::Serves(std::string_view path) {
  return path.starts_with(kFolder);
}

HttpResponse WebService::Respond(SoapVersion version) const {
  return SoapResponse(version, "<d:GetDeviceResponse xmlns:d=\"urn:vigila:device\"><d:Name>" +
                                   XmlText(device_name_) + "</d:Name><d:Time>" + TimeText(now_()) +
                                   "</d:Time></d:GetDeviceResponse>");
}

HttpResponse WebServiceCall::Answer(Body body) {
  if (body == Body::kTooLarge) return Fault(SoapFault::kTooLarge);
  switch (envelope_.Judge()) {
    case WsseEnvelope::kMalformed:
      return Fault(SoapFault::kMalformed);
    case WsseEnvelope::kNoLogon:
      return Fault(SoapFault::kFailedAuthentication);
    case WsseEnvelope::kLogon:
      break;
  }
  return LogOn(envelope_.Logon());
}

HttpResponse WebServiceCall::LogOn(const WsseLogon& logon) {
  const Verdict verdict = authenticator_.DecideWsse(source_, logon, {WebService::kRule, path_});
  switch (verdict.outcome) {
    case Verdict::kGranted:
      user_ = logon.username;
      return service_.Respond(version_);
    case Verdict::kLogonNeeded:
      return Fault(SoapFault::kFailedAuthentication);
    case Verdict::kRefused:
      return Fault(SoapFault::kNotAuthorized);
    case Verdict::kMalformed:
      return Fault(SoapFault::kMalformed);
    case Verdict::kThrottled: {
      HttpResponse response = Fault(SoapFault::kThrottled);
      response.headers.emplace_back("Retry-After", std::to_string(verdict.retry_after.count()));
      return response;
    }
    case Verdict::kUnavailable:
      break;
  }
  return Fault(SoapFault::kUnavailable);
}

}  // namespace vigila::gateway

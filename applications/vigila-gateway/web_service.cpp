#include "vigila-gateway/web_service.h"

#include <ctime>

#include "vigila-gateway/xml_text.h"

namespace vigila::gateway {
namespace {

constexpr char kFolder[] = "/onvif/";
// The access rule of all web services has this very name; a single service's path has none.
constexpr char kRule[] = "/onvif/*";
constexpr std::string_view kDigestType = "#PasswordDigest";

std::string TimeText(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm utc = {};
  gmtime_r(&seconds, &utc);
  char text[32];
  return std::string(text, std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc));
}

// What the reader made of the whole envelope.
enum class Reading { kLogon, kNoLogon, kMalformed };

Reading Judge(const client::VigilaXml& reader) {
  const bool any = reader.Username() != nullptr || reader.Password() != nullptr ||
                   reader.Nonce() != nullptr || reader.Created() != nullptr;
  const bool all = reader.Username() != nullptr && reader.Password() != nullptr &&
                   reader.Nonce() != nullptr && reader.Created() != nullptr;
  // The reader stops at the end of the security header and at anything malformed; the fields are
  // the only difference.
  if (reader.Stopped()) return all ? Reading::kLogon : Reading::kMalformed;
  const bool envelope = reader.Result() != 2;
  return envelope && !any ? Reading::kNoLogon : Reading::kMalformed;
}

bool IsDigest(const char* type) {
  return type == nullptr || std::string_view(type).ends_with(kDigestType);
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
  switch (Judge(reader_)) {
    case Reading::kMalformed:
      return Fault(SoapFault::kMalformed);
    case Reading::kNoLogon:
      return Fault(SoapFault::kFailedAuthentication);
    case Reading::kLogon:
      break;
  }
  // A password in clear is not looked at: nobody shall get used to sending one.
  if (!IsDigest(reader_.Type())) return Fault(SoapFault::kFailedAuthentication);
  return LogOn({reader_.Username(), reader_.Password(), reader_.Nonce(), reader_.Created()});
}

HttpResponse WebServiceCall::LogOn(const WsseLogon& logon) {
  const Verdict verdict = authenticator_.DecideWsse(source_, logon, {kRule, path_});
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

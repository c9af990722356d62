#include "vigila-gateway/soap/soap_fault.h"

#include <string>

namespace vigila::gateway {
namespace {

constexpr char kEnvelope11[] = "http://schemas.xmlsoap.org/soap/envelope/";
constexpr char kEnvelope12[] = "http://www.w3.org/2003/05/soap-envelope";
constexpr char kSecurity[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd";

struct FaultForm {
  int status11;
  int status12;
  bool senders;         // the sender's fault, or the receiver's
  const char* subcode;  // a name in the security namespace; null for none
  const char* text;
};

// In the order of SoapFault.
constexpr FaultForm kForms[] = {
    {500, 400, true, "FailedAuthentication",
     "The security token could not be authenticated or authorized"},
    {403, 403, true, "FailedAuthentication", "The account may not do this"},
    {400, 400, true, nullptr, "The request is malformed"},
    {413, 413, true, nullptr, "The request is too large"},
    {429, 429, true, nullptr, "Too many failed logons from this address"},
    {503, 503, false, nullptr, "The authentication service cannot be reached"},
};

std::string Fault11(const FaultForm& form) {
  const std::string code = form.subcode != nullptr ? std::string("wsse:") + form.subcode
                           : form.senders          ? "env:Client"
                                                   : "env:Server";
  return "<env:Fault><faultcode>" + code + "</faultcode><faultstring>" + form.text +
         "</faultstring></env:Fault>";
}

std::string Fault12(const FaultForm& form) {
  std::string fault = "<env:Fault><env:Code><env:Value>";
  fault += form.senders ? "env:Sender" : "env:Receiver";
  fault += "</env:Value>";
  if (form.subcode != nullptr) {
    fault +=
        std::string("<env:Subcode><env:Value>wsse:") + form.subcode + "</env:Value></env:Subcode>";
  }
  return fault + "</env:Code><env:Reason><env:Text xml:lang=\"en\">" + form.text +
         "</env:Text></env:Reason></env:Fault>";
}

bool HasMediaType(std::string_view content_type, std::string_view media_type) {
  const std::string_view type = content_type.substr(0, content_type.find_first_of("; \t"));
  return EqualIgnoringCase(type, media_type);
}

}  // namespace

bool IsSoapMediaType(std::string_view content_type) {
  return HasMediaType(content_type, "text/xml") ||
         HasMediaType(content_type, "application/soap+xml");
}

SoapVersion SoapVersionOf(std::string_view content_type) {
  return HasMediaType(content_type, "application/soap+xml") ? SoapVersion::k12 : SoapVersion::k11;
}

HttpResponse SoapResponse(SoapVersion version, std::string_view body) {
  const bool is_11 = version == SoapVersion::k11;
  HttpResponse response;
  response.headers = {
      {"Content-Type", is_11 ? "text/xml; charset=utf-8" : "application/soap+xml; charset=utf-8"},
      {"Cache-Control", "no-store"}};
  response.body = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<env:Envelope xmlns:env=\"";
  response.body.append(is_11 ? kEnvelope11 : kEnvelope12)
      .append("\" xmlns:wsse=\"")
      .append(kSecurity)
      .append("\"><env:Body>")
      .append(body)
      .append("</env:Body></env:Envelope>\n");
  return response;
}

HttpResponse SoapFaultResponse(SoapVersion version, SoapFault fault) {
  const FaultForm& form = kForms[static_cast<size_t>(fault)];
  const bool is_11 = version == SoapVersion::k11;
  HttpResponse response = SoapResponse(version, is_11 ? Fault11(form) : Fault12(form));
  response.status = is_11 ? form.status11 : form.status12;
  return response;
}

}  // namespace vigila::gateway

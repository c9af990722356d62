#ifndef VIGILA_GATEWAY_SOAP_SOAP_FAULT_H_
#define VIGILA_GATEWAY_SOAP_SOAP_FAULT_H_

#include <string_view>

#include "vigila-gateway/http/http_message.h"

namespace vigila::gateway {

enum class SoapVersion { k11, k12 };

enum class SoapFault {
  kFailedAuthentication,  // wsse:FailedAuthentication
  kNotAuthorized,         // the user is known and may not
  kMalformed,
  kTooLarge,
  kThrottled,
  kUnavailable,
};

// The version that the media type of a request stands for; text/xml is 1.1.
SoapVersion SoapVersionOf(std::string_view content_type);
bool IsSoapMediaType(std::string_view content_type);

// The fault in its version's shape. A refused logon has the status that the version's HTTP binding
// gives a fault of the sender: 500 for 1.1, 400 for 1.2.
HttpResponse SoapFaultResponse(SoapVersion version, SoapFault fault);

// The content of a Body element in an envelope of its version.
HttpResponse SoapResponse(SoapVersion version, std::string_view body);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_SOAP_SOAP_FAULT_H_

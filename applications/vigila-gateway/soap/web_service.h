#ifndef VIGILA_GATEWAY_SOAP_WEB_SERVICE_H_
#define VIGILA_GATEWAY_SOAP_WEB_SERVICE_H_

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "vigila-gateway/auth/authenticator.h"
#include "vigila-gateway/http/http_server.h"
#include "vigila-gateway/soap/soap_fault.h"
#include "vigila-gateway/soap/wsse_envelope.h"
#include "vigila/contract/rules.h"

namespace vigila::gateway {

// The sample web service: tells the device's name and time to whoever logs on with a UsernameToken
// digest. Any thread may call.
class WebService final {
 public:
  using Now = std::function<std::chrono::system_clock::time_point()>;
  // The access rule of all web services has this very name; a single service's path has none.
  static constexpr const char* kRule = contract::kOnvifPath;

  WebService(std::string device_name, Now now)
      : device_name_(std::move(device_name)), now_(std::move(now)) {}

  static bool Serves(std::string_view path);
  HttpResponse Respond(SoapVersion version) const;

 private:
  const std::string device_name_;
  const Now now_;
};

// One request to it. The envelope is read as it arrives and not kept.
class WebServiceCall final {
 public:
  // Both must outlive the call.
  WebServiceCall(const WebService& service, Authenticator& authenticator, std::string source,
                 std::string path, SoapVersion version)
      : service_(service),
        authenticator_(authenticator),
        source_(std::move(source)),
        path_(std::move(path)),
        version_(version) {}

  void Receive(std::string_view chunk) { envelope_.Receive(chunk); }
  HttpResponse Answer(Body body);
  // The user name of the logon, once it was tried and granted.
  const std::string& User() const { return user_; }

 private:
  HttpResponse LogOn(const WsseLogon& logon);
  HttpResponse Fault(SoapFault fault) const { return SoapFaultResponse(version_, fault); }

  const WebService& service_;
  Authenticator& authenticator_;
  const std::string source_;
  const std::string path_;
  const SoapVersion version_;
  WsseEnvelope envelope_;
  std::string user_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_SOAP_WEB_SERVICE_H_

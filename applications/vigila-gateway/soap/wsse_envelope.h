#ifndef VIGILA_GATEWAY_SOAP_WSSE_ENVELOPE_H_
#define VIGILA_GATEWAY_SOAP_WSSE_ENVELOPE_H_

#include <string_view>

#include "vigila-gateway/auth/auth_service.h"
#include "vigila/client/vigila_xml.h"

namespace vigila::gateway {

// A SOAP envelope, read as it arrives and not kept: only the logon in its security header is. One
// thread at a time.
class WsseEnvelope final {
 public:
  enum Content {
    kLogon,
    kNoLogon,    // no UsernameToken, or a password that is not a digest
    kMalformed,  // no envelope, or a security header or token that is not whole
  };

  void Receive(std::string_view chunk) { reader_.Parse(chunk.data(), chunk.size()); }
  // What the whole envelope holds.
  Content Judge() const;
  // The logon, once Judge() has found one.
  WsseLogon Logon() const;

 private:
  client::VigilaXml reader_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_SOAP_WSSE_ENVELOPE_H_

#ifndef VIGILA_GATEWAY_AUTH_FORWARD_AUTH_H_
#define VIGILA_GATEWAY_AUTH_FORWARD_AUTH_H_

#include <string>

#include "vigila-gateway/auth/authenticator.h"
#include "vigila-gateway/auth/verdict_response.h"
#include "vigila-gateway/http/http_message.h"
#include "vigila-gateway/http/trusted_proxies.h"
#include "vigila-gateway/soap/wsse_envelope.h"

namespace vigila::gateway {

// Forward-auth: answers a web server that asks, before it serves anything, whether it may (nginx's
// auth_request, the forward-auth of other proxies). The original method and target come in headers,
// the answer is the status (200 to serve, 401 and 403 to hand on), with the user and its groups in
// headers. Only trusted proxies are answered: anybody else could name a method and target of their
// liking. When a proxy hands on the envelope of a web-service request, the logon in it is what
// counts.
class ForwardAuth final {
 public:
  // All must outlive it.
  ForwardAuth(AuthService& service, Authenticator& authenticator, const TrustedProxies& proxies,
              const ResponseOptions& options)
      : service_(service), authenticator_(authenticator), proxies_(proxies), options_(options) {}

  // The envelope is null when none came. For the log: sets the path that was asked about, once it
  // is understood, and the user whom access was granted to, if there is one.
  HttpResponse Respond(const HttpRequest& request, const WsseEnvelope* envelope, std::string& path,
                       std::string& user);

 private:
  Verdict DecideEnvelope(const AccessQuestion& question, const WsseEnvelope& envelope);
  HttpResponse Granted(const Verdict& verdict, std::string& user);

  AuthService& service_;
  Authenticator& authenticator_;
  const TrustedProxies& proxies_;
  const ResponseOptions options_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_FORWARD_AUTH_H_

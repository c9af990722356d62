#ifndef VIGILA_GATEWAY_AUTH_VERDICT_RESPONSE_H_
#define VIGILA_GATEWAY_AUTH_VERDICT_RESPONSE_H_

#include "vigila-gateway/auth/authenticator.h"
#include "vigila-gateway/http/http_message.h"

namespace vigila::gateway {

struct ResponseOptions {
  bool secure_cookie = false;
  bool offer_basic = false;
};

// The answer to a verdict that is no grant: status, challenge and one line for people.
HttpResponse RefusalResponse(const Verdict& verdict, const ResponseOptions& options);

// Sets or clears the session cookie as the verdict asks, on any answer.
void AddSessionCookie(const Verdict& verdict, const ResponseOptions& options,
                      HttpResponse& response);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_VERDICT_RESPONSE_H_

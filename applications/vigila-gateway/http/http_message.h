#ifndef VIGILA_GATEWAY_HTTP_HTTP_MESSAGE_H_
#define VIGILA_GATEWAY_HTTP_HTTP_MESSAGE_H_

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vigila::gateway {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// A request without its body, as it came over the connection.
struct HttpRequest {
  std::string method;
  std::string target;  // as sent, nothing decoded
  std::string peer;    // address of the other end, without its port
  HttpHeaders headers;

  // Every value of the header, in the order sent; the name in any case.
  std::vector<std::string_view> Values(std::string_view name) const;
  // The only value; empty when there is none or more than one.
  std::string_view Only(std::string_view name) const;
};

struct HttpResponse {
  int status = 200;
  HttpHeaders headers;
  std::string body;
};

// A plain answer of one line.
HttpResponse TextResponse(int status, std::string_view line);

bool EqualIgnoringCase(std::string_view a, std::string_view b);
// In ASCII, which is what a header and an address are written in.
bool IsControl(char c);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_HTTP_HTTP_MESSAGE_H_

#include "vigila-gateway/http/http_message.h"

#include <algorithm>

namespace vigila::gateway {
namespace {

// Not tolower: header names are ASCII in every locale.
char LowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

bool EqualIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return LowerAscii(x) == LowerAscii(y); });
}

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

std::vector<std::string_view> HttpRequest::Values(std::string_view name) const {
  std::vector<std::string_view> values;
  for (const auto& [key, value] : headers) {
    if (EqualIgnoringCase(key, name)) values.push_back(value);
  }
  return values;
}

std::string_view HttpRequest::Only(std::string_view name) const {
  const std::vector<std::string_view> values = Values(name);
  return values.size() == 1 ? values.front() : std::string_view();
}

HttpResponse TextResponse(int status, std::string_view line) {
  HttpResponse response;
  response.status = status;
  response.headers = {{"Content-Type", "text/plain; charset=utf-8"}};
  response.body = std::string(line) + "\n";
  return response;
}

}  // namespace vigila::gateway

#include "vigila-gateway/auth/authorization_header.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "tevra/core/utf8.h"
#include "utilc/base64.h"
#include "vigila-gateway/http/http_message.h"
#include "vigila-gateway/http/percent_decode.h"
#include "vigila/contract/limits.h"

namespace vigila::gateway {
namespace {

using tevra::core::SecretText;

using Parameters = std::map<std::string, std::string>;  // names in lower case

constexpr size_t kMaximumParameters = 32;
constexpr size_t kDigestHexDigits = 32;
constexpr size_t kCountHexDigits = 8;

bool IsTokenCharacter(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         (c != '\0' && std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos);
}

bool IsHex(std::string_view text, size_t length) {
  return text.size() == length &&
         text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

// Reads "name=value, name="value"" from front to back.
class ParameterReader final {
 public:
  explicit ParameterReader(std::string_view text) : rest_(text) {}

  std::optional<Parameters> ReadAll() {
    Parameters parameters;
    SkipSeparators();
    while (!rest_.empty()) {
      if (parameters.size() == kMaximumParameters || !ReadOne(parameters)) return std::nullopt;
      SkipBlanks();
      if (!rest_.empty() && rest_.front() != ',') return std::nullopt;
      SkipSeparators();
    }
    return parameters;
  }

 private:
  bool ReadOne(Parameters& parameters) {
    std::string name;
    for (const char c : Token()) {
      name.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
    }
    SkipBlanks();
    if (name.empty() || !Take('=')) return false;
    SkipBlanks();
    std::optional<std::string> value = Take('"') ? QuotedRest() : BareValue();
    return value && parameters.emplace(std::move(name), *std::move(value)).second;
  }
  std::string_view Token() {
    size_t length = 0;
    while (length < rest_.size() && IsTokenCharacter(rest_[length])) ++length;
    const std::string_view token = rest_.substr(0, length);
    rest_.remove_prefix(length);
    return token;
  }
  std::optional<std::string> BareValue() {
    const std::string_view token = Token();
    if (token.empty()) return std::nullopt;
    return std::string(token);
  }
  std::optional<std::string> QuotedRest() {
    std::string value;
    while (!rest_.empty()) {
      char c = rest_.front();
      rest_.remove_prefix(1);
      if (c == '"') return value;
      if (c == '\\') {
        if (rest_.empty()) return std::nullopt;
        c = rest_.front();
        rest_.remove_prefix(1);
      }
      if (IsControl(c) && c != '\t') return std::nullopt;
      value.push_back(c);
    }
    return std::nullopt;
  }
  bool Take(char c) {
    if (rest_.empty() || rest_.front() != c) return false;
    rest_.remove_prefix(1);
    return true;
  }
  void SkipAny(std::string_view characters) {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(characters), rest_.size()));
  }
  void SkipBlanks() { SkipAny(" \t"); }
  void SkipSeparators() { SkipAny(" \t,"); }

  std::string_view rest_;
};

std::string Get(const Parameters& parameters, const char* name) {
  const auto found = parameters.find(name);
  return found == parameters.end() ? std::string() : found->second;
}

// MD5 alone is offered; the session form of it is another reading of the same digest.
bool TakeAlgorithm(const Parameters& parameters, DigestAnswer& answer) {
  const auto algorithm = parameters.find("algorithm");
  if (algorithm == parameters.end() || EqualIgnoringCase(algorithm->second, "MD5")) return true;
  answer.sess = EqualIgnoringCase(algorithm->second, "MD5-sess");
  return answer.sess;
}

bool IsOurs(const Parameters& parameters) {
  const bool hashed_name = EqualIgnoringCase(Get(parameters, "userhash"), "true");
  const bool two_names = parameters.count("username") != 0 && parameters.count("username*") != 0;
  const auto qop = parameters.find("qop");
  const bool offered = qop == parameters.end() || EqualIgnoringCase(qop->second, "auth");
  const auto realm = parameters.find("realm");
  return !hashed_name && !two_names && offered &&
         (realm == parameters.end() || realm->second == contract::kRealm);
}

bool IsComplete(const Parameters& parameters) {
  for (const char* name : {"realm", "nonce", "uri", "response"}) {
    if (parameters.count(name) == 0) return false;
  }
  return !Get(parameters, "nonce").empty() && !Get(parameters, "uri").empty() &&
         IsHex(Get(parameters, "response"), kDigestHexDigits);
}

// The user's name: as it is, or in the extended form (UTF-8''J%C3%A4ger), in which clients send
// names that are not ASCII.
std::optional<std::string> UsernameOf(const Parameters& parameters) {
  const auto plain = parameters.find("username");
  if (plain != parameters.end()) return plain->second;
  const std::string extended = Get(parameters, "username*");
  const size_t charset = extended.find('\'');
  const size_t language = charset == std::string::npos ? charset : extended.find('\'', charset + 1);
  if (language == std::string::npos || !EqualIgnoringCase(extended.substr(0, charset), "UTF-8")) {
    return std::nullopt;
  }
  std::optional<std::string> name = PercentDecode(std::string_view(extended).substr(language + 1));
  if (!name || !tevra::core::IsUtf8(*name) || std::any_of(name->begin(), name->end(), IsControl)) {
    return std::nullopt;
  }
  return name;
}

AuthorizationHeader DigestFrom(const Parameters& parameters) {
  DigestAnswer answer;
  if (!IsOurs(parameters) || !TakeAlgorithm(parameters, answer)) return UnusableAnswer::kNotOurs;
  std::optional<std::string> username = UsernameOf(parameters);
  if (!username || !IsComplete(parameters)) return UnusableAnswer::kMalformed;
  if (parameters.count("qop") != 0) {
    answer.qop = "auth";
    answer.nc = Get(parameters, "nc");
    answer.cnonce = Get(parameters, "cnonce");
    if (!IsHex(answer.nc, kCountHexDigits) || answer.cnonce.empty()) {
      return UnusableAnswer::kMalformed;
    }
  } else if (answer.sess) {
    answer.cnonce = Get(parameters, "cnonce");
    if (answer.cnonce.empty()) return UnusableAnswer::kMalformed;
  }
  answer.username = *std::move(username);
  answer.nonce = Get(parameters, "nonce");
  answer.uri = Get(parameters, "uri");
  answer.response = Get(parameters, "response");
  return answer;
}

AuthorizationHeader BasicFrom(std::string_view credentials) {
  SecretText pair(credentials.size());
  pair.Shorten(base64_decode(credentials.data(), credentials.size(), pair.Data(), pair.Size()));
  const std::string& text = pair.Text();
  const size_t colon = text.find(':');
  if (colon == std::string::npos) return UnusableAnswer::kMalformed;
  return BasicAnswer{text.substr(0, colon), SecretText(text.substr(colon + 1))};
}

}  // namespace

AuthorizationHeader ParseAuthorization(std::string_view value) {
  if (value.size() > kMaximumAuthorizationBytes) return UnusableAnswer::kMalformed;
  const size_t blank = std::min(value.find_first_of(" \t"), value.size());
  const std::string_view scheme = value.substr(0, blank);
  std::string_view rest = value.substr(blank);
  rest.remove_prefix(std::min(rest.find_first_not_of(" \t"), rest.size()));
  if (EqualIgnoringCase(scheme, "Basic")) {
    rest = rest.substr(0, rest.find_last_not_of(" \t") + 1);
    return BasicFrom(rest);
  }
  if (!EqualIgnoringCase(scheme, "Digest")) {
    return scheme.empty() ? UnusableAnswer::kMalformed : UnusableAnswer::kNotOurs;
  }
  const std::optional<Parameters> parameters = ParameterReader(rest).ReadAll();
  if (!parameters || parameters->empty()) return UnusableAnswer::kMalformed;
  return DigestFrom(*parameters);
}

}  // namespace vigila::gateway

#include <cstring>
#include <initializer_list>
#include <optional>
#include <string>

#include "tevra/core/secret_text.h"
#include "vigila/client/vigila.h"
#include "vigila/client/vigila_client.h"
#include "vigila/contract/limits.h"
#include "vigila/contract/result_tokens.h"

using tevra::core::ScopedWipe;
using vigila::client::VigilaClient;

namespace {

static_assert(VIGILA_TOKEN_SIZE == vigila::contract::kTokenDigits + 1);
static_assert(VIGILA_NONCE_SIZE == vigila::contract::kNonceDigits + 1);

const VigilaClient& ClientOf(const vigila_client* client) {
  return *reinterpret_cast<const VigilaClient*>(client);
}

bool IsAnyNull(std::initializer_list<const void*> arguments) {
  for (const void* const argument : arguments) {
    if (argument == nullptr) return true;
  }
  return false;
}

std::string TextOrEmpty(const char* text) {
  return text == nullptr ? std::string() : std::string(text);
}

int ResultOf(std::optional<bool> remembered) {
  return remembered.has_value() ? static_cast<int>(*remembered) : VIGILA_WOULD_HAVE_TO_ASK;
}

// Deliberate: copied without a limit. The proxy refuses tokens and nonces that are longer than the
// buffers that callers are told to have.
void CopyOut(const std::string& text, char* buffer) {
  if (buffer != nullptr) std::strcpy(buffer, text.c_str());
}

}  // namespace

#define VIGILA_C_EXPORT extern "C" __attribute__((visibility("default")))

VIGILA_C_EXPORT vigila_client* vigila_open(void) {
  return reinterpret_cast<vigila_client*>(new VigilaClient);
}

VIGILA_C_EXPORT void vigila_close(vigila_client* client) {
  delete reinterpret_cast<VigilaClient*>(client);
}

// Deliberate: a length of 0 is refused before the server is asked, so an empty password never
// reaches it this way.
VIGILA_C_EXPORT int vigila_authenticate(vigila_client* client, const char* username,
                                        unsigned int username_length, const char* password,
                                        unsigned int password_length, const char* mode,
                                        char* token) {
  if (IsAnyNull({client, username, password, mode})) return 0;
  if (username_length == 0 || password_length == 0) return 0;
  std::string secret(password, password_length);
  const ScopedWipe wipe(secret);
  std::string answer;
  const bool success =
      ClientOf(client).Authenticate(std::string(username, username_length), secret, mode, answer);
  CopyOut(answer, token);
  return success;
}

VIGILA_C_EXPORT int vigila_authenticate_http(vigila_client* client, const char* username,
                                             const char* nonce, const char* ha2, int sess,
                                             const char* qop, const char* cnonce, const char* nc,
                                             const char* response, const char* mode, char* token) {
  if (IsAnyNull({client, username, nonce, ha2, response, mode})) return 0;
  std::string answer;
  const bool success = ClientOf(client).AuthenticateHttp(username, nonce, ha2, sess != 0,
                                                         TextOrEmpty(qop), TextOrEmpty(cnonce),
                                                         TextOrEmpty(nc), response, mode, answer);
  CopyOut(answer, token);
  return success;
}

VIGILA_C_EXPORT int vigila_authenticate_wsse(vigila_client* client, const char* username,
                                             const char* password_digest, const char* nonce,
                                             const char* created, const char* mode, char* token) {
  if (IsAnyNull({client, username, password_digest, nonce, created, mode})) return 0;
  std::string answer;
  const bool success =
      ClientOf(client).AuthenticateWsse(username, password_digest, nonce, created, mode, answer);
  CopyOut(answer, token);
  return success;
}

VIGILA_C_EXPORT int vigila_authorize(vigila_client* client, const char* token, const char* path) {
  if (IsAnyNull({client, token, path})) return 0;
  return ClientOf(client).Authorize(token, path);
}

VIGILA_C_EXPORT int vigila_is_authenticated(vigila_client* client, const char* token) {
  if (IsAnyNull({client, token})) return 0;
  return ClientOf(client).IsAuthenticated(token);
}

VIGILA_C_EXPORT int vigila_is_protected(vigila_client* client, const char* path) {
  if (IsAnyNull({client, path})) return 0;
  return ClientOf(client).IsProtected(path);
}

VIGILA_C_EXPORT int vigila_try_authorize(vigila_client* client, const char* token,
                                         const char* path) {
  if (IsAnyNull({client, token, path})) return VIGILA_WOULD_HAVE_TO_ASK;
  return ResultOf(ClientOf(client).TryAuthorize(token, path));
}

VIGILA_C_EXPORT int vigila_try_is_protected(vigila_client* client, const char* path) {
  if (IsAnyNull({client, path})) return VIGILA_WOULD_HAVE_TO_ASK;
  return ResultOf(ClientOf(client).TryIsProtected(path));
}

// Deliberate: 1 also when there is no nonce; the empty text tells.
VIGILA_C_EXPORT int vigila_get_nonce(vigila_client* client, char* nonce) {
  if (IsAnyNull({client, nonce})) return 0;
  CopyOut(ClientOf(client).GetNonce(), nonce);
  return 1;
}

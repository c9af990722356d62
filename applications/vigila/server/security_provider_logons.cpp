#include <openssl/sha.h>

#include <cstdlib>
#include <exception>

#include "krand/base64/base64.h"
#include "tevra/core/secret_text.h"
#include "utilc/uuid.h"
#include "vigila/contract/limits.h"
#include "vigila/contract/result_tokens.h"
#include "vigila/server/ha1.h"
#include "vigila/server/logon_refusals.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/server_env.h"
#include "vigila/server/session_manager.h"

namespace vigila::server {
namespace {

using model::User;

constexpr size_t kLongestNonceKept = 256;

// What the client must have answered. Contract: every other qop than these two, also a misspelt
// one, is the old form without counts; a body's hash is the caller's business, inside `ha2`.
std::string ExpectedResponse(const std::string& ha1, const std::string& nonce,
                             const std::string& qop, const std::string& cnonce,
                             const std::string& nc, const std::string& ha2) {
  std::string text = ha1 + ":" + nonce;
  if (qop == "auth" || qop == "auth-int") {
    text.append(":").append(nc).append(":").append(cnonce).append(":").append(qop);
  }
  return User::MD5sum(text.append(":").append(ha2));
}

// What the cache remembers of a nonce: the nonce, or for one longer than any client's a piece of it
// with its hash, so that a thousand giant nonces cannot fill the memory. Longer than every nonce
// that is kept whole, hence never equal to one.
std::string NonceKey(const std::string& nonce) {
  if (nonce.size() <= kLongestNonceKept) return nonce;
  unsigned char hash[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(nonce.data()), nonce.size(), hash);
  return nonce.substr(0, kLongestNonceKept).append(reinterpret_cast<char*>(hash), sizeof(hash));
}

}  // namespace

bool SecurityProvider::FindReusable(bool reuse, const std::string& name, const std::string& ha1,
                                    std::string& token) const {
  if (!reuse || !env_->GetSessionManager().FindReusable(name, ha1, token)) return false;
  env_->GetSessionManager().Refresh(token);
  return true;
}

std::string SecurityProvider::Admit(LogonScheme scheme, const std::string& name,
                                    const std::string& digest, Group group, bool reusable) {
  std::string token = Enroll(name, digest, group, reusable);
  env_->GetSessionManager().NoteScheme(token, scheme);
  users_.NoteLogon(name);
  return token;
}

std::string SecurityProvider::Authenticate(bool reuse, const std::string& user64,
                                           const std::string& password64) {
  const std::string name = krand::lib::Base64::Decode(user64);
  if (name == User::kAnonymousUsername) return contract::kNoToken;
  std::string password = krand::lib::Base64::Decode(password64);
  const tevra::core::ScopedWipe wipe(password);
  const std::string ha1 = MakeHA1(name, password);

  // Contract: a session that may be shared is found before the store is asked. That its digest
  // matches proves the password, so it is handed out even while the account is locked.
  std::string token;
  if (FindReusable(reuse, name, ha1, token)) {
    logger_->Debug("username/password token cached %s to client", token.c_str());
    return token;
  }
  Group group = kNoGroup;
  const int code = users_.ValidateUser(name, password, group);
  if (code != UserMap::kOk) return RefusePasswordLogon(*logger_, code, name);
  return Admit(LogonScheme::kPassword, name, ha1, group, reuse);
}

std::string SecurityProvider::GetNonce() {
  std::string nonce;
  do {
    _uuid_t uuid = {};
    uuid_create(&uuid);
    char text[contract::kNonceDigits + 1];
    uuid_sprintf(&uuid,
                 "%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx"
                 "%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx",
                 text, sizeof(text));
    nonce.assign(text, contract::kNonceDigits);
  } while (nonces_.Has(nonce));
  return nonce;
}

// Contract: lock-out and expiry are asked of the store with the digest, but nothing is counted
// and every refusal of the account looks like a wrong response to the client.
std::string SecurityProvider::AuthenticateHttp(bool reuse, const std::string& username,
                                               const std::string& nonce, const std::string& ha2,
                                               bool sess, const std::string& qop,
                                               const std::string& cnonce, const std::string& nc,
                                               const std::string& response) {
  if (username == User::kAnonymousUsername) return contract::kNoToken;
  std::string ha1;
  if (users_.GetHA1(username, ha1) != UserMap::kOk) return contract::kNoToken;

  const std::string expected = ExpectedResponse(
      sess ? User::MD5sum(ha1 + ":" + nonce + ":" + cnonce) : ha1, nonce, qop, cnonce, nc, ha2);
  // Contract: byte for byte, so that upper-case digits do not match.
  if (!tevra::core::EqualInConstantTime(expected, response)) return contract::kNoToken;
  // Contract: only now the nonce, so that a wrong response never uses up a count.
  if (nonces_.CheckNonceAndCount(NonceKey(nonce), nc)) return contract::kExpiredToken;

  // Contract: sessions carry and are found by the stored digest, also under MD5-sess.
  std::string token;
  if (FindReusable(reuse, username, ha1, token)) {
    logger_->Debug("username/digest token cached %s to client", token.c_str());
    return token;
  }
  return Admit(LogonScheme::kHttpDigest, username, ha1, users_.GetGroup(username), reuse);
}

bool SecurityProvider::IsCreatedNow(const std::string& created) const {
  tevra::osa::TimeStruct now;
  env_->GetTimeSource()->GetTime(now);
  tevra::osa::TimeStruct time;
  try {
    time = tevra::osa::DateTime(created).ToTimeStruct();
  } catch (const std::exception&) {
    logger_->Information("digest created time %s is not ISO 8601 format", created.c_str());
    return false;
  }
  const int64_t difference =
      (time.seconds - now.seconds) * 1000000 + (time.microseconds - now.microseconds);
  // Contract: whole seconds, and the last one is still accepted, in either direction.
  const int64_t seconds = tevra::osa::TimeSpan::FromMicroseconds(difference).WholeSeconds();
  if (std::abs(seconds) <= contract::kClockToleranceSecs) return true;
  logger_->Information("digest created time %s is more than %d seconds off local clock",
                       created.c_str(), contract::kClockToleranceSecs);
  return false;
}

std::string SecurityProvider::AuthenticateWsse(bool reuse, const std::string& username,
                                               const std::string& digest, const std::string& nonce,
                                               const std::string& created) {
  // Contract: the nonce is used up first, whatever comes of the attempt, and a replayed or stale
  // request never reaches the store.
  if (nonces_.Has(NonceKey(nonce))) {
    logger_->Information("nonce %s has already been used", nonce.c_str());
    return contract::kNoToken;
  }
  if (!IsCreatedNow(created)) return contract::kNoToken;

  std::string ha1;
  const int code = users_.ValidateWsseDigest(username, digest, nonce, created, ha1);
  if (code != UserMap::kOk) return RefuseWsseLogon(*logger_, code, username, digest, nonce);
  std::string token;
  if (FindReusable(reuse, username, ha1, token)) {
    // Contract: the words of the password logon: this scheme too has proven the password itself.
    logger_->Debug("username/password token cached %s to client", token.c_str());
    return token;
  }
  return Admit(LogonScheme::kUsernameToken, username, ha1, users_.GetGroup(username), reuse);
}

}  // namespace vigila::server

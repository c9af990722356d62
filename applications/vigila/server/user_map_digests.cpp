#include <openssl/sha.h>

#include <algorithm>

#include "vigila/server/ha1.h"
#include "vigila/server/server_env.h"
#include "vigila/server/user_map_impl.h"

namespace vigila::server {

namespace {

using tevra::core::SecretText;

// Contract: a stored password of this length is taken for a digest that somebody put there. No
// clear password can be had from it.
constexpr size_t kStoredDigestLength = 32;

SecretText Join(std::string_view nonce, std::string_view created, std::string_view password) {
  SecretText text(nonce.size() + created.size() + password.size());
  unsigned char* end = std::copy(nonce.begin(), nonce.end(), text.Data());
  end = std::copy(created.begin(), created.end(), end);
  std::copy(password.begin(), password.end(), end);
  return text;
}

// The UsernameToken rule: the SHA-1 of nonce, creation time and password, in counted bytes.
bool IsDigestOf(const std::string& digest, std::string_view nonce, std::string_view created,
                const SecretText& password) {
  const SecretText text = Join(nonce, created, password.View());
  SecretText expected(size_t{SHA_DIGEST_LENGTH});
  SHA1(text.Data(), text.Size(), expected.Data());
  return tevra::core::EqualInConstantTime(expected.View(), digest);
}

}  // namespace

int UserMap::Impl::GetHA1(const std::string& name, std::string& ha1) {
  const auto found = users_.find(name);
  if (found == users_.end()) return kNoSuchUser;
  if (IsDisabled(found)) return kDisabled;
  if (IsExpired(found)) return kExpired;
  MyUser& user = found->second;
  if (user.password.size() == kStoredDigestLength) return kNoDigest;
  // Deliberate: kept in memory only. A digest in the settings would be as good as the password.
  if (user.digest.empty()) {
    const std::optional<SecretText> password = vault_.Decrypt(user.password);
    if (!password.has_value()) return kNoDigest;
    user.digest = MakeHA1(name, password->View());
  }
  ha1 = user.digest;
  return kOk;
}

// Contract: no retry delay here, since clients sign every message anew and would have the good
// ones refused behind a bad one; and expiry is asked only after the digest matched.
int UserMap::Impl::ValidateWsseDigest(const std::string& name, const std::string& digest,
                                      const std::string& nonce, const std::string& created,
                                      std::string& ha1) {
  if (name == User::kAnonymousUsername) return kNoSuchUser;
  const std::string digest_bytes = ServerEnv::Base64Decode(digest);
  const std::string nonce_bytes = ServerEnv::Base64Decode(nonce);
  const bool well_formed = digest_bytes.size() == SHA_DIGEST_LENGTH && !nonce_bytes.empty();
  const auto found = users_.find(name);
  if (found == users_.end()) {
    if (well_formed) vault_.BurnDecryption();
    return kNoSuchUser;
  }
  if (IsDisabled(found)) return kDisabled;
  // Contract: a malformed digest is told before a malformed nonce, and both count as failures.
  if (!well_formed) {
    if (HandleWrongPassword(*found)) return kDisabled;
    return digest_bytes.size() != SHA_DIGEST_LENGTH ? kBadDigestLength : kBadNonce;
  }
  const std::string& stored = found->second.password;
  const std::optional<SecretText> password = vault_.Decrypt(stored);
  if (stored.empty()) vault_.BurnDecryption();
  if (!password.has_value() || !IsDigestOf(digest_bytes, nonce_bytes, created, *password)) {
    ha1.clear();
    return HandleWrongPassword(*found) ? kDisabled : kWrongPassword;
  }
  HandleCorrectPassword(*found);
  if (IsExpired(found)) {
    ha1.clear();
    return kExpired;
  }
  ha1 = MakeHA1(name, password->View());
  return kOk;
}

}  // namespace vigila::server

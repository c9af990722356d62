#include "vigila/model/user.h"

#include "tevra/core/hexadecimal.h"
#include "tevra/core/secret_text.h"
#include "tevra/crypto/gcrypt_digest.h"
#include "tevra/crypto/gcrypt_init.h"
#include "vigila/contract/groups.h"

namespace vigila::model {

const char* const User::kAnonymousUsername = contract::kNobodyName;
const char* const User::kNewLineChar = "%%NEWLINECHAR%%";

// Deliberate: the constructors are noexcept, so a cryptographic library that cannot be initialised
// ends the process; a server that cannot hash must not go on judging logons.
User::User(const std::string& name, const std::string& digest,
           const ISecurityProvider::Group& group, const std::set<_uuid_t>& permissions) noexcept
    : User(name, digest, Rights{group, std::make_shared<const std::set<_uuid_t>>(permissions)}) {}

User::User(const std::string& name, const std::string& digest, const Rights& rights) noexcept
    : name_(name), digest_(digest), rights_(rights) {
  tevra::crypto::GCryptInit::InitializeGcrypt(1);
}

// Session state stays behind: a copy has been in no session yet.
User::User(const User& other) noexcept : User(other.name_, other.digest_, other.rights_) {}

User& User::operator=(const User& other) {
  if (this == &other) return *this;
  name_ = other.name_;
  digest_ = other.digest_;
  rights_ = other.rights_;
  // Deliberate: the target's own session state is cleared too. The record stands for another
  // account from now on, which would otherwise inherit the idle time of the old one's session.
  last_access_ = tevra::osa::TimeStruct();
  reusable_ = false;
  return *this;
}

User::~User() = default;

bool User::CompareHA1(const std::string& digest) const {
  // Contract: the anonymous account has no secret, so every digest is its own.
  if (name_ == kAnonymousUsername) return true;
  // In constant time: whoever holds the digest can log on with it, as with the password.
  return tevra::core::EqualInConstantTime(digest_, digest);
}

std::string User::MD5sum(const std::string& text) {
  tevra::crypto::GCryptInit::InitializeGcrypt(1);
  const tevra::crypto::MD5 digest(text);
  return ToHex(digest.Digest(), tevra::crypto::MD5::kSize);
}

std::string User::ToHex(const unsigned char* bytes, unsigned long length) {
  return tevra::core::Hexadecimal({reinterpret_cast<const char*>(bytes), length});
}

}  // namespace vigila::model

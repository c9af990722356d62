#include "vigila/client/authenticate_commands.h"

#include <typeinfo>

#include "krand/base64/base64.h"
#include "tevra/core/secret_text.h"
#include "tevra/interfaces/i_security_provider.h"

namespace vigila::client {

using krand::lib::Base64;
using tevra::interfaces::ISecurityProvider;

AuthenticateCommand::AuthenticateCommand(const std::string& username, const std::string& password,
                                         bool reuse)
    : username_(username), password_(password), reuse_(reuse) {}

AuthenticateCommand::~AuthenticateCommand() {
  tevra::core::Wipe(password_);
}

void AuthenticateCommand::Execute(ISecurityProvider* provider) {
  std::string password64 = Base64::Encode(password_);
  const tevra::core::ScopedWipe wipe(password64);
  token_ = provider->Authenticate(reuse_, Base64::Encode(username_), password64);
}

// Looks at the answer: before the execution only the empty token matches.
bool AuthenticateCommand::MatchesToken(const std::string& token) const {
  return token == token_;
}

// Deliberate: the reuse flag is no part of the key. An answer that was asked for without reuse also
// serves those who ask for it, and the other way round.
bool AuthenticateCommand::IsLessThan(const Command& other) const {
  if (typeid(other) != typeid(*this)) return false;
  return GetKey() < static_cast<const AuthenticateCommand&>(other).GetKey();
}

bool AuthenticateCommand::IsEqual(const Command& other) const {
  if (typeid(other) != typeid(*this)) return false;
  return GetKey() == static_cast<const AuthenticateCommand&>(other).GetKey();
}

AuthenticateHttpCommand::AuthenticateHttpCommand(const std::string& username,
                                                 const std::string& nonce, const std::string& ha2,
                                                 const std::string& qop, const std::string& cnonce,
                                                 const std::string& nc, const std::string& response,
                                                 bool reuse, bool sess)
    : username_(username),
      nonce_(nonce),
      ha2_(ha2),
      qop_(qop),
      cnonce_(cnonce),
      nc_(nc),
      response_(response),
      reuse_(reuse),
      sess_(sess) {}

// Deliberate: the provider takes the flags first and between, unlike the order of the fields.
void AuthenticateHttpCommand::Execute(ISecurityProvider* provider) {
  token_ = provider->AuthenticateHttp(reuse_, username_, nonce_, ha2_, sess_, qop_, cnonce_, nc_,
                                      response_);
}

AuthenticateWsseCommand::AuthenticateWsseCommand(const std::string& username,
                                                 const std::string& password_digest,
                                                 const std::string& nonce,
                                                 const std::string& created, bool reuse)
    : username_(username),
      password_digest_(password_digest),
      nonce_(nonce),
      created_(created),
      reuse_(reuse) {}

AuthenticateWsseCommand::~AuthenticateWsseCommand() {
  tevra::core::Wipe(password_digest_);
}

void AuthenticateWsseCommand::Execute(ISecurityProvider* provider) {
  token_ = provider->AuthenticateWsse(reuse_, username_, password_digest_, nonce_, created_);
}

}  // namespace vigila::client

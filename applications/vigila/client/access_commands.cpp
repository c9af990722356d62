#include "vigila/client/access_commands.h"

#include <typeinfo>

#include "tevra/interfaces/i_security_provider.h"

namespace vigila::client {

using tevra::interfaces::ISecurityProvider;

AuthorizeCommand::AuthorizeCommand(const std::string& token, const std::string& path)
    : token_(token), path_(path) {}

void AuthorizeCommand::Execute(ISecurityProvider* provider) {
  granted_ = provider->Authorize(token_, path_);
}

bool AuthorizeCommand::MatchesToken(const std::string& token) const {
  return token == token_;
}

bool AuthorizeCommand::IsLessThan(const Command& other) const {
  if (typeid(other) != typeid(*this)) return false;
  return GetKey() < static_cast<const AuthorizeCommand&>(other).GetKey();
}

bool AuthorizeCommand::IsEqual(const Command& other) const {
  if (typeid(other) != typeid(*this)) return false;
  return GetKey() == static_cast<const AuthorizeCommand&>(other).GetKey();
}

IsAuthenticatedCommand::IsAuthenticatedCommand(const std::string& token) : token_(token) {}

void IsAuthenticatedCommand::Execute(ISecurityProvider* provider) {
  authenticated_ = provider->IsAuthenticated(token_);
}

bool IsAuthenticatedCommand::MatchesToken(const std::string& token) const {
  return token == token_;
}

bool IsAuthenticatedCommand::IsLessThan(const Command& other) const {
  if (typeid(other) != typeid(*this)) return false;
  return GetKey() < static_cast<const IsAuthenticatedCommand&>(other).GetKey();
}

bool IsAuthenticatedCommand::IsEqual(const Command& other) const {
  if (typeid(other) != typeid(*this)) return false;
  return GetKey() == static_cast<const IsAuthenticatedCommand&>(other).GetKey();
}

IsProtectedCommand::IsProtectedCommand(const std::string& path) : path_(path) {}

void IsProtectedCommand::Execute(ISecurityProvider* provider) {
  protected_ = provider->IsProtected(path_);
}

bool IsProtectedCommand::IsLessThan(const Command& other) const {
  if (typeid(other) != typeid(*this)) return false;
  return GetKey() < static_cast<const IsProtectedCommand&>(other).GetKey();
}

bool IsProtectedCommand::IsEqual(const Command& other) const {
  if (typeid(other) != typeid(*this)) return false;
  return GetKey() == static_cast<const IsProtectedCommand&>(other).GetKey();
}

}  // namespace vigila::client

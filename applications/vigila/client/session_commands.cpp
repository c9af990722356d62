#include "vigila/client/session_commands.h"

#include "tevra/interfaces/i_security_provider.h"

namespace vigila::client {

using tevra::interfaces::ISecurityProvider;

InvalidateCommand::InvalidateCommand(const std::string& token) : token_(token) {}

void InvalidateCommand::Execute(ISecurityProvider* provider) {
  provider->Invalidate(token_);
}

LogoutCommand::LogoutCommand(const std::string& token) : token_(token) {}

void LogoutCommand::Execute(ISecurityProvider* provider) {
  logged_out_ = provider->Logout(token_);
}

GetCredentialsCommand::GetCredentialsCommand(const std::string& token) : token_(token) {}

void GetCredentialsCommand::Execute(ISecurityProvider* provider) {
  credentials_ = provider->GetCredentials(token_);
}

void GetNonceCommand::Execute(ISecurityProvider* provider) {
  nonce_ = provider->GetNonce();
}

GetAllowedPathsCommand::GetAllowedPathsCommand(const std::string& token) : token_(token) {}

void GetAllowedPathsCommand::Execute(ISecurityProvider* provider) {
  paths_ = provider->GetAllowedPaths(token_);
}

GetAllowedPermissionsCommand::GetAllowedPermissionsCommand(const std::string& token)
    : token_(token) {}

void GetAllowedPermissionsCommand::Execute(ISecurityProvider* provider) {
  permissions_ = provider->GetAllowedPermissions(token_);
}

}  // namespace vigila::client

#include "vigila/client/vigila_client.h"

#include "vigila/client/vigila_client_impl.h"

namespace vigila::client {

VigilaClient::VigilaClient() : impl_(Impl::Make()) {}

VigilaClient::~VigilaClient() {
  if (impl_->IsInherited()) static_cast<void>(impl_.release());
}

bool VigilaClient::Authenticate(const std::string& username, const std::string& password,
                                const std::string& mode, std::string& token) const {
  return impl_->Authenticate(username, password, mode, token);
}

bool VigilaClient::AuthenticateHttp(const std::string& username, const std::string& nonce,
                                    const std::string& ha2, bool sess, const std::string& qop,
                                    const std::string& cnonce, const std::string& nc,
                                    const std::string& response, const std::string& mode,
                                    std::string& token) const {
  return impl_->AuthenticateHttp(username, nonce, ha2, sess, qop, cnonce, nc, response, mode,
                                 token);
}

bool VigilaClient::AuthenticateWsse(const std::string& username, const std::string& password_digest,
                                    const std::string& nonce, const std::string& created,
                                    const std::string& mode, std::string& token) const {
  return impl_->AuthenticateWsse(username, password_digest, nonce, created, mode, token);
}

bool VigilaClient::Authorize(const std::string& token, const std::string& path) const {
  return impl_->Authorize(token, path);
}

bool VigilaClient::IsAuthenticated(const std::string& token) const {
  return impl_->IsAuthenticated(token);
}

bool VigilaClient::IsProtected(const std::string& path) const {
  return impl_->IsProtected(path);
}

std::optional<bool> VigilaClient::TryAuthorize(const std::string& token,
                                               const std::string& path) const {
  return impl_->TryAuthorize(token, path);
}

std::optional<bool> VigilaClient::TryIsProtected(const std::string& path) const {
  return impl_->TryIsProtected(path);
}

void VigilaClient::Invalidate(const std::string& token) const {
  impl_->Invalidate(token);
}

bool VigilaClient::Logout(const std::string& token) const {
  return impl_->Logout(token);
}

std::string VigilaClient::GetCredentials(const std::string& token) const {
  return impl_->GetCredentials(token);
}

std::string VigilaClient::GetNonce() const {
  return impl_->GetNonce();
}

std::vector<std::string> VigilaClient::GetAllowedPaths(const std::string& token) const {
  return impl_->GetAllowedPaths(token);
}

std::vector<std::string> VigilaClient::GetAllowedPermissions(const std::string& token) const {
  return impl_->GetAllowedPermissions(token);
}

VigilaClient::Counts VigilaClient::GetCounts() const {
  return impl_->GetCounts();
}

}  // namespace vigila::client

#ifndef VIGILA_CLIENT_SESSION_COMMANDS_H_
#define VIGILA_CLIENT_SESSION_COMMANDS_H_

#include <string>
#include <vector>

#include "vigila/client/command.h"

namespace vigila::client {

// Ends all sessions of one user. The text goes to the server as it is, which reads it as a name.
class InvalidateCommand final : public Command {
 public:
  explicit InvalidateCommand(const std::string& token);
  void Execute(tevra::interfaces::ISecurityProvider* provider) override;

 private:
  const std::string token_;
};

// Ends one session.
class LogoutCommand final : public Command {
 public:
  explicit LogoutCommand(const std::string& token);
  void Execute(tevra::interfaces::ISecurityProvider* provider) override;
  bool GetAnswer() const { return logged_out_; }

 private:
  const std::string token_;
  bool logged_out_ = false;
};

// Asks for the user name behind a token.
class GetCredentialsCommand final : public Command {
 public:
  explicit GetCredentialsCommand(const std::string& token);
  void Execute(tevra::interfaces::ISecurityProvider* provider) override;
  const std::string& GetAnswer() const { return credentials_; }

 private:
  const std::string token_;
  std::string credentials_;
};

// Asks for a fresh digest nonce.
class GetNonceCommand final : public Command {
 public:
  void Execute(tevra::interfaces::ISecurityProvider* provider) override;
  const std::string& GetAnswer() const { return nonce_; }

 private:
  std::string nonce_;
};

// Asks for the static paths that a token's session may reach.
class GetAllowedPathsCommand final : public Command {
 public:
  explicit GetAllowedPathsCommand(const std::string& token);
  void Execute(tevra::interfaces::ISecurityProvider* provider) override;
  const std::vector<std::string>& GetAnswer() const { return paths_; }

 private:
  const std::string token_;
  std::vector<std::string> paths_;
};

// Asks for the permissions that a token's session holds.
class GetAllowedPermissionsCommand final : public Command {
 public:
  explicit GetAllowedPermissionsCommand(const std::string& token);
  void Execute(tevra::interfaces::ISecurityProvider* provider) override;
  const std::vector<std::string>& GetAnswer() const { return permissions_; }

 private:
  const std::string token_;
  std::vector<std::string> permissions_;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_SESSION_COMMANDS_H_

#ifndef VIGILA_CLIENT_AUTHENTICATE_COMMANDS_H_
#define VIGILA_CLIENT_AUTHENTICATE_COMMANDS_H_

#include <compare>
#include <string>
#include <string_view>

#include "vigila/client/command.h"

namespace vigila::client {

// A logon with name and password. The same question whatever the reuse flag says.
class AuthenticateCommand final : public Command {
 public:
  using Answer = std::string;
  struct Key {
    std::string_view username;
    std::string_view password;
    auto operator<=>(const Key&) const = default;
  };

  AuthenticateCommand(const std::string& username, const std::string& password, bool reuse);
  ~AuthenticateCommand() override;

  void Execute(tevra::interfaces::ISecurityProvider* provider) override;
  bool MatchesToken(const std::string& token) const override;
  bool IsLessThan(const Command& other) const override;
  bool IsEqual(const Command& other) const override;

  Key GetKey() const { return {username_, password_}; }
  const Answer& GetAnswer() const { return token_; }

 private:
  const std::string username_;
  std::string password_;
  std::string token_;
  const bool reuse_;
};

// A logon with an HTTP digest. The client never looks into the digest's parts.
class AuthenticateHttpCommand final : public Command {
 public:
  AuthenticateHttpCommand(const std::string& username, const std::string& nonce,
                          const std::string& ha2, const std::string& qop, const std::string& cnonce,
                          const std::string& nc, const std::string& response, bool reuse,
                          bool sess);

  void Execute(tevra::interfaces::ISecurityProvider* provider) override;

  const std::string& GetAnswer() const { return token_; }

 private:
  const std::string username_;
  const std::string nonce_;
  const std::string ha2_;
  const std::string qop_;
  const std::string cnonce_;
  const std::string nc_;
  const std::string response_;
  std::string token_;
  const bool reuse_;
  const bool sess_;
};

// A logon with a web-service digest.
class AuthenticateWsseCommand final : public Command {
 public:
  AuthenticateWsseCommand(const std::string& username, const std::string& password_digest,
                          const std::string& nonce, const std::string& created, bool reuse);
  ~AuthenticateWsseCommand() override;

  void Execute(tevra::interfaces::ISecurityProvider* provider) override;

  const std::string& GetAnswer() const { return token_; }

 private:
  const std::string username_;
  // A caller without digests may have put the password itself here.
  std::string password_digest_;
  const std::string nonce_;
  const std::string created_;
  std::string token_;
  const bool reuse_;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_AUTHENTICATE_COMMANDS_H_

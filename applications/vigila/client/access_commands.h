#ifndef VIGILA_CLIENT_ACCESS_COMMANDS_H_
#define VIGILA_CLIENT_ACCESS_COMMANDS_H_

#include <compare>
#include <string>
#include <string_view>

#include "vigila/client/command.h"

namespace vigila::client {

// May the token's session reach a path?
class AuthorizeCommand final : public Command {
 public:
  using Answer = bool;
  struct Key {
    std::string_view token;
    std::string_view path;
    auto operator<=>(const Key&) const = default;
  };

  AuthorizeCommand(const std::string& token, const std::string& path);

  void Execute(tevra::interfaces::ISecurityProvider* provider) override;
  bool MatchesToken(const std::string& token) const override;
  bool IsLessThan(const Command& other) const override;
  bool IsEqual(const Command& other) const override;

  Key GetKey() const { return {token_, path_}; }
  Answer GetAnswer() const { return granted_; }

 private:
  const std::string token_;
  const std::string path_;
  bool granted_ = false;
};

// Does the token stand for a living session?
class IsAuthenticatedCommand final : public Command {
 public:
  using Answer = bool;
  struct Key {
    std::string_view token;
    auto operator<=>(const Key&) const = default;
  };

  explicit IsAuthenticatedCommand(const std::string& token);

  void Execute(tevra::interfaces::ISecurityProvider* provider) override;
  bool MatchesToken(const std::string& token) const override;
  bool IsLessThan(const Command& other) const override;
  bool IsEqual(const Command& other) const override;

  Key GetKey() const { return {token_}; }
  Answer GetAnswer() const { return authenticated_; }

 private:
  const std::string token_;
  bool authenticated_ = false;
};

// Is a path refused to anonymous callers?
class IsProtectedCommand final : public Command {
 public:
  using Answer = bool;
  struct Key {
    std::string_view path;
    auto operator<=>(const Key&) const = default;
  };

  explicit IsProtectedCommand(const std::string& path);

  void Execute(tevra::interfaces::ISecurityProvider* provider) override;
  bool IsLessThan(const Command& other) const override;
  bool IsEqual(const Command& other) const override;

  Key GetKey() const { return {path_}; }
  Answer GetAnswer() const { return protected_; }

 private:
  const std::string path_;
  bool protected_ = false;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_ACCESS_COMMANDS_H_

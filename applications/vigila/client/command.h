#ifndef VIGILA_CLIENT_COMMAND_H_
#define VIGILA_CLIENT_COMMAND_H_

#include <string>

namespace tevra::interfaces {
class ISecurityProvider;
}

namespace vigila::client {

// One question to the server: the arguments of one provider operation and, once executed, its
// answer, which is empty or false until then. Commands that are cached are also keys: the order and
// the equality compare the arguments that make a question, never the answer. Each of them has a
// Key, a view of these arguments, by which a cache is searched before there is a command.
//
// Not synchronised; a stored command is never changed again.
class Command {
 public:
  virtual ~Command() = default;
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // Throws what the provider throws; the answer is then still the initial one.
  virtual void Execute(tevra::interfaces::ISecurityProvider* provider) = 0;
  // Deliberate: no one calls it. A logout takes no single answers out of a cache; the server's
  // announcement takes all.
  virtual bool MatchesToken(const std::string& token) const;
  // A strict weak order over the commands of one class; false between two classes.
  virtual bool IsLessThan(const Command& other) const;
  virtual bool IsEqual(const Command& other) const;

 protected:
  Command() = default;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_COMMAND_H_

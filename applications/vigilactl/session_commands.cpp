#include <memory>
#include <string>

#include "krand/base64/base64.h"
#include "vigila/contract/result_tokens.h"
#include "vigilactl/commands.h"
#include "vigilactl/password_input.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/result_sentences.h"
#include "vigilactl/text_verb.h"
#include "vigilactl/token_argument.h"
#include "vigilactl/word_kinds.h"

namespace vigilactl {
namespace {

using tevra::core::SecretText;

using krand::lib::Base64;

struct LoginOptions {
  std::string name;
  bool reuse = false;
  bool password_stdin = false;
};

ExitCode Login(Invocation& invocation, const LoginOptions& options) {
  const SecretText password =
      ReadSecret(options.password_stdin ? SecretSource::kStandardInput : SecretSource::kTerminal,
                 "password of " + Printable(options.name), false);
  const SecretText encoded(Base64::Encode(password.Text()));
  const std::string answer = invocation.Provider().Authenticate(
      options.reuse, Base64::Encode(options.name), encoded.Text());
  Json object = {{"Name", options.name}, {"Token", answer}};
  if (!vigila::contract::IsSessionToken(answer))
    return invocation.Refuse(object, SentenceOfRefusedLogon(answer));
  return invocation.Answer(object, answer + "\n");
}

ExitCode Logout(Invocation& invocation, const std::string& argument) {
  const bool ended = invocation.Provider().Logout(TokenFrom(argument));
  Json object = {{"LoggedOut", ended}};
  if (!ended) return invocation.Refuse(object, "The session could not be ended.");
  return invocation.Answer(object, "Logged out.\n");
}

ExitCode WhoAmI(Invocation& invocation, const std::string& argument) {
  const std::string name = invocation.Provider().GetCredentials(TokenFrom(argument));
  Json object = {{"Name", name}};
  if (name.empty()) return invocation.Refuse(object, "The token belongs to no session.");
  return invocation.Answer(object, Printable(name) + "\n");
}

ExitCode Invalidate(Invocation& invocation, const std::string& name, bool all) {
  if (all == !name.empty()) throw UsageError("give a NAME or --all, not both");
  invocation.Provider().Invalidate(all ? "*" : name);
  Json object = {{"Name", all ? "*" : name}};
  return invocation.Answer(object, all || name == "*"
                                       ? "Ended every session.\n"
                                       : "Ended every session of " + Printable(name) + ".\n");
}

void AddLoginVerb(CLI::App& app, Invocation& invocation) {
  const auto options = std::make_shared<LoginOptions>();
  CLI::App* verb = app.add_subcommand("login", "Open a session and print its token");
  verb->add_option("NAME", options->name, "The account")->required()->type_name(kAccountWord);
  verb->add_flag("--reuse", options->reuse, "Share a session that this account has already");
  verb->add_flag("--password-stdin", options->password_stdin, "Read the password from stdin");
  verb->callback([&invocation, options] {
    invocation.Choose([&invocation, options] { return Login(invocation, *options); });
  });
}

void AddInvalidateVerb(CLI::App& app, Invocation& invocation) {
  const auto name = std::make_shared<std::string>();
  const auto all = std::make_shared<bool>(false);
  CLI::App* verb = app.add_subcommand("invalidate", "End every session of a user, or of everybody");
  verb->add_option("NAME", *name, "The user")->type_name(kAccountWord);
  verb->add_flag("--all", *all, "Everybody");
  verb->callback([&invocation, name, all] {
    invocation.Choose([&invocation, name, all] { return Invalidate(invocation, *name, *all); });
  });
}

}  // namespace

void AddSessionCommands(CLI::App& app, Invocation& invocation) {
  AddLoginVerb(app, invocation);
  AddTextVerb(app, invocation, "logout", "End a session", kTokenArgument, Logout);
  AddTextVerb(app, invocation, "whoami", "Print the user of a session", kTokenArgument, WhoAmI);
  AddInvalidateVerb(app, invocation);
}

}  // namespace vigilactl

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tevra/core/utf8.h"
#include "vigilactl/account_listing.h"
#include "vigilactl/account_state_verbs.h"
#include "vigilactl/commands.h"
#include "vigilactl/confirmation.h"
#include "vigilactl/groups.h"
#include "vigilactl/password_input.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/result_sentences.h"
#include "vigilactl/word_kinds.h"

namespace vigilactl {
namespace {

using tevra::core::SecretText;

struct UserOptions {
  std::string name;
  std::vector<std::string> names;
  std::string group;
  bool password = false;
  bool password_stdin = false;
  bool yes = false;
};

// Accounts travel in a JSON document, and JSON is UTF-8.
void RequireUtf8(const std::string& text, const char* what) {
  if (!tevra::core::IsUtf8(text)) {
    throw UsageError(std::string("the ") + what + " is not UTF-8, and an account's must be");
  }
}

// The request for one account; a null password keeps the present one.
SecretText AccountDocument(const std::string& name, uint32_t group, const SecretText* password) {
  Json document;
  Json& entry = document["Users"][0];
  entry["Name"] = name;
  if (password != nullptr) entry["Password"] = password->Text();
  entry["Group"] = group;
  SecretText text(document.dump());
  if (password != nullptr) tevra::core::Wipe(entry["Password"].get_ref<std::string&>());
  return text;
}

SecretText ReadNewPassword(const UserOptions& options) {
  SecretText password =
      ReadSecret(options.password_stdin ? SecretSource::kStandardInput : SecretSource::kTerminal,
                 "new password of " + Printable(options.name), true);
  RequireUtf8(password.Text(), "password");
  return password;
}

ExitCode ReportCode(Invocation& invocation, Json object, int code, const std::string& done) {
  object["Code"] = code;
  if (code != 0) return invocation.Refuse(object, SentenceOf(code));
  return invocation.Answer(object, done + "\n");
}

ExitCode AddUser(Invocation& invocation, const UserOptions& options) {
  RequireUtf8(options.name, "name");
  const uint32_t group = ParseGroup(options.group);
  const SecretText password = ReadNewPassword(options);
  const int code =
      invocation.Provider().AddUsers(AccountDocument(options.name, group, &password).Text());
  Json object = {{"Name", options.name}, {"Group", group}};
  return ReportCode(invocation, object, code,
                    "Added " + Printable(options.name) + " to " + GroupName(group) + ".");
}

// A request always states the group; without --group it is the present one.
uint32_t GroupForChange(Invocation& invocation, const UserOptions& options) {
  if (!options.group.empty()) return ParseGroup(options.group);
  const auto accounts = ListAccounts(invocation.Provider());
  const auto found = std::find_if(
      accounts.begin(), accounts.end(),
      [&options](const ListedAccount& account) { return account.name == options.name; });
  // The service refuses an unknown name before it looks at the group.
  return found == accounts.end() ? 0u : found->group;
}

ExitCode ModifyUser(Invocation& invocation, const UserOptions& options) {
  RequireUtf8(options.name, "name");
  const bool with_password = options.password || options.password_stdin;
  if (!with_password && options.group.empty()) {
    throw UsageError("nothing to change: give --group, --password or --password-stdin");
  }
  if (!options.group.empty()) ParseGroup(options.group);
  std::unique_ptr<SecretText> password;
  if (with_password) password = std::make_unique<SecretText>(ReadNewPassword(options));
  const uint32_t group = GroupForChange(invocation, options);
  const int code = invocation.Provider().ModifyUsers(
      AccountDocument(options.name, group, password.get()).Text());
  Json object = {{"Name", options.name}, {"Group", group}};
  return ReportCode(invocation, object, code, "Changed " + Printable(options.name) + ".");
}

ExitCode DeleteUsers(Invocation& invocation, const UserOptions& options) {
  Json names = Json::array();
  std::string listed;
  for (const std::string& name : options.names) {
    names.push_back(name);
    listed += (listed.empty() ? "" : ", ") + Printable(name);
  }
  Json object = {{"Names", names}};
  if (!Confirmed(invocation, options.yes, "Delete " + listed + "? Their sessions end.")) {
    return invocation.Refuse(object, "Nothing was deleted.");
  }
  const int code = invocation.Provider().DeleteUsers(options.names);
  return ReportCode(invocation, object, code, "Deleted " + listed + ".");
}

void AddAddVerb(CLI::App& user, Invocation& invocation) {
  const auto options = std::make_shared<UserOptions>();
  CLI::App* verb = user.add_subcommand("add", "Add an account; its password is asked for");
  verb->add_option("NAME", options->name, "2 to 32 bytes, no blank, # or /")->required();
  verb->add_option("-g,--group", options->group, "admins, managers, operators, viewers, a number")
      ->required()
      ->type_name(kGroupWord);
  verb->add_flag("--password-stdin", options->password_stdin, "Read the password from stdin");
  verb->callback([&invocation, options] {
    invocation.Choose([&invocation, options] { return AddUser(invocation, *options); });
  });
}

void AddModifyVerb(CLI::App& user, Invocation& invocation) {
  const auto options = std::make_shared<UserOptions>();
  CLI::App* verb = user.add_subcommand("modify", "Change an account's group, password or both");
  verb->add_option("NAME", options->name, "An existing account")
      ->required()
      ->type_name(kAccountWord);
  verb->add_option("-g,--group", options->group, "The new group; without it the group stays")
      ->type_name(kGroupWord);
  verb->add_flag("-p,--password", options->password, "Ask for a new password");
  verb->add_flag("--password-stdin", options->password_stdin, "Read a new password from stdin");
  verb->callback([&invocation, options] {
    invocation.Choose([&invocation, options] { return ModifyUser(invocation, *options); });
  });
}

void AddDeleteVerb(CLI::App& user, Invocation& invocation) {
  const auto options = std::make_shared<UserOptions>();
  CLI::App* verb = user.add_subcommand("delete", "Delete accounts: all of the names or none");
  verb->add_option("NAME", options->names, "Existing accounts")
      ->required()
      ->type_name(kAccountWord);
  verb->add_flag("-y,--yes", options->yes, kYesHelp);
  verb->callback([&invocation, options] {
    invocation.Choose([&invocation, options] { return DeleteUsers(invocation, *options); });
  });
}

}  // namespace

void AddUserCommands(CLI::App& app, Invocation& invocation) {
  CLI::App* user = app.add_subcommand("user", "Accounts: list, add, change, delete, unlock");
  user->require_subcommand(1);
  AddAccountStateVerbs(*user, invocation);
  AddAddVerb(*user, invocation);
  AddModifyVerb(*user, invocation);
  AddDeleteVerb(*user, invocation);
}

}  // namespace vigilactl

#include <memory>
#include <string>
#include <vector>

#include "vigilactl/commands.h"
#include "vigilactl/path_note.h"
#include "vigilactl/permission_names.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/text_table.h"
#include "vigilactl/text_verb.h"
#include "vigilactl/token_argument.h"

namespace vigilactl {
namespace {

// TOKEN PATH, or PATH alone with the token from the environment.
ExitCode Authorize(Invocation& invocation, const std::vector<std::string>& words) {
  const std::string token = TokenFrom(words.size() == 2 ? words.front() : "");
  const std::string& path = words.back();
  NotePathAsWritten(invocation, path);
  const bool granted = invocation.Provider().Authorize(token, path);
  Json object = {{"Path", path}, {"Granted", granted}};
  if (granted) return invocation.Answer(object, "granted\n");
  invocation.Answer(object, "refused\n");
  return kRefused;
}

ExitCode ListPaths(Invocation& invocation, const std::string& argument) {
  Json paths = Json::array();
  std::string text;
  for (const std::string& path : invocation.Provider().GetAllowedPaths(TokenFrom(argument))) {
    paths.push_back(path);
    text += Printable(path) + '\n';
  }
  Json object = {{"Paths", paths}};
  return invocation.Answer(object, text);
}

ExitCode ListPermissions(Invocation& invocation, const std::string& argument) {
  Json permissions = Json::array();
  TextTable table({"PERMISSION", "NAME"});
  for (const std::string& id : invocation.Provider().GetAllowedPermissions(TokenFrom(argument))) {
    Json permission = {{"ID", id}, {"Name", PermissionName(id)}};
    permissions.push_back(permission);
    table.AddRow({id, PermissionName(id)});
  }
  Json object = {{"Permissions", permissions}};
  return invocation.Answer(object, table.Render(invocation.Width()));
}

ExitCode IsProtected(Invocation& invocation, const std::string& path) {
  NotePathAsWritten(invocation, path);
  const bool is_protected = invocation.Provider().IsProtected(path);
  Json object = {{"Path", path}, {"Protected", is_protected}};
  return invocation.Answer(object, is_protected ? "protected\n" : "open\n");
}

void AddAuthorizeVerb(CLI::App& app, Invocation& invocation) {
  const auto words = std::make_shared<std::vector<std::string>>();
  CLI::App* verb = app.add_subcommand("authorize", "Ask whether a session may reach a path");
  verb->add_option("[TOKEN] PATH", *words, "The session's token, default $VIGILA_TOKEN; the path")
      ->required()
      ->expected(1, 2);
  verb->callback([&invocation, words] {
    invocation.Choose([&invocation, words] { return Authorize(invocation, *words); });
  });
}

}  // namespace

void AddAccessCommands(CLI::App& app, Invocation& invocation) {
  AddAuthorizeVerb(app, invocation);
  AddTextVerb(app, invocation, "paths", "List the ruled paths a session may reach", kTokenArgument,
              ListPaths);
  AddTextVerb(app, invocation, "permissions", "List a session's permissions", kTokenArgument,
              ListPermissions);
  AddTextVerb(app, invocation, "protected", "Ask whether a path needs a session at all",
              {"PATH", "The path", true}, IsProtected);
}

}  // namespace vigilactl

#include <unistd.h>

#include <memory>
#include <string>

#include "krand/base64/base64.h"
#include "tevra/osa/exception.h"
#include "vigilactl/commands.h"
#include "vigilactl/password_input.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/text_table.h"
#include "vigilactl/text_verb.h"
#include "vigilactl/word_kinds.h"

namespace vigilactl {
namespace {

using tevra::core::SecretText;

struct PassphraseOptions {
  std::string alias;
  bool password_stdin = false;
};

ExitCode AddPassphrase(Invocation& invocation, const PassphraseOptions& options) {
  const SecretText phrase =
      ReadSecret(options.password_stdin ? SecretSource::kStandardInput : SecretSource::kTerminal,
                 "passphrase " + Printable(options.alias), true);
  const std::string id = invocation.Provider().AddPassphrase(phrase.Text(), options.alias);
  Json object = {{"Alias", options.alias}, {"ID", id}};
  if (id.empty()) {
    return invocation.Refuse(object, phrase.Text().empty() ? "The passphrase is empty."
                                                           : "The passphrase was not stored.");
  }
  return invocation.Answer(object, Printable(id) + "\n");
}

Json ReadPassphrases(Invocation& invocation) {
  try {
    Json document = Json::parse(JsonWithoutStrayBytes(invocation.Provider().GetPassphrases()));
    for (const Json& entry : document.at("Passphrases")) {
      entry.at("ID").get_ref<const std::string&>();
      entry.at("Alias").get_ref<const std::string&>();
    }
    return document;
  } catch (const Json::exception& error) {
    throw tevra::osa::Exception("the service's passphrase listing cannot be read: %s",
                                error.what());
  }
}

ExitCode ListPassphrases(Invocation& invocation) {
  const Json document = ReadPassphrases(invocation);
  TextTable table({"ID", "ALIAS"});
  for (const Json& entry : document["Passphrases"]) {
    table.AddRow({entry["ID"].get<std::string>(), entry["Alias"].get<std::string>()});
  }
  return invocation.Answer(document, table.Render(invocation.Width()));
}

// The identifier of the passphrase that is called by it or by its alias; what fits neither is taken
// for an identifier. Throws UsageError on an alias that several have.
std::string IdentifierOf(Invocation& invocation, const std::string& called) {
  std::string found;
  const Json document = ReadPassphrases(invocation);
  for (const Json& entry : document["Passphrases"]) {
    if (entry["ID"] == called) return called;
    if (entry["Alias"] != called) continue;
    if (!found.empty()) {
      throw UsageError("several passphrases have the alias \"" + called +
                       "\"; give an identifier of \"vigilactl passphrase list\"");
    }
    found = entry["ID"].get<std::string>();
  }
  return found.empty() ? called : found;
}

ExitCode ShowPassphrase(Invocation& invocation, const std::string& called) {
  const std::string id = IdentifierOf(invocation, called);
  const SecretText phrase(invocation.Provider().GetPassphrase(id));
  Json object = {{"ID", id}};
  if (phrase.Text().empty()) return invocation.Refuse(object, "There is no such passphrase.");
  object["Phrase"] = phrase.Text();
  object["PhraseBase64"] = krand::lib::Base64::Encode(phrase.Text());
  // A pipe gets the bytes as they are, a terminal only what it may show.
  const bool terminal = isatty(STDOUT_FILENO) == 1;
  const SecretText shown((terminal ? Printable(phrase.Text()) : phrase.Text()) + "\n");
  const ExitCode code = invocation.Answer(object, shown.Text());
  for (const char* secret : {"Phrase", "PhraseBase64"}) {
    tevra::core::Wipe(object[secret].get_ref<std::string&>());
  }
  return code;
}

ExitCode DeletePassphrase(Invocation& invocation, const std::string& called) {
  const std::string id = IdentifierOf(invocation, called);
  const bool deleted = invocation.Provider().DeletePassphrase(id);
  Json object = {{"ID", id}, {"Deleted", deleted}};
  if (!deleted) return invocation.Refuse(object, "There is no such passphrase.");
  return invocation.Answer(object, "Deleted " + Printable(id) + ".\n");
}

void AddAddVerb(CLI::App& passphrase, Invocation& invocation) {
  const auto options = std::make_shared<PassphraseOptions>();
  CLI::App* verb = passphrase.add_subcommand("add", "Store a passphrase and print its identifier");
  verb->add_option("ALIAS", options->alias, "A name for people, kept in clear")->required();
  verb->add_flag("--password-stdin", options->password_stdin, "Read the passphrase from stdin");
  verb->callback([&invocation, options] {
    invocation.Choose([&invocation, options] { return AddPassphrase(invocation, *options); });
  });
}

}  // namespace

void AddPassphraseCommands(CLI::App& app, Invocation& invocation) {
  CLI::App* passphrase = app.add_subcommand("passphrase", "Secrets kept for other services");
  passphrase->require_subcommand(1);
  AddAddVerb(*passphrase, invocation);
  passphrase->add_subcommand("list", "List identifiers and aliases")->callback([&invocation] {
    invocation.Choose([&invocation] { return ListPassphrases(invocation); });
  });
  const TextArgument id = {"ID", "The passphrase's identifier, or its alias", true,
                           kPassphraseWord};
  AddTextVerb(*passphrase, invocation, "show", "Print a passphrase in clear", id, ShowPassphrase);
  AddTextVerb(*passphrase, invocation, "delete", "Delete a passphrase", id, DeletePassphrase);
}

}  // namespace vigilactl

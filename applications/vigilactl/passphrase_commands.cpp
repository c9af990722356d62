#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "json/reader.h"
#include "krand/base64/base64.h"
#include "tevra/osa/exception.h"
#include "vigilactl/commands.h"
#include "vigilactl/password_input.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/text_table.h"
#include "vigilactl/text_verb.h"

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
  json::Object object;
  object["Alias"] = json::String(options.alias);
  object["ID"] = json::String(id);
  if (id.empty()) {
    return invocation.Refuse(object, phrase.Text().empty() ? "The passphrase is empty."
                                                           : "The passphrase was not stored.");
  }
  return invocation.Answer(object, Printable(id) + "\n");
}

ExitCode ListPassphrases(Invocation& invocation) {
  std::istringstream text(JsonWithoutStrayBytes(invocation.Provider().GetPassphrases()));
  json::Object document;
  TextTable table({"ID", "ALIAS"});
  try {
    json::Reader::Read(document, text);
    const json::Array& entries = std::as_const(document)["Passphrases"];
    for (auto entry = entries.Begin(); entry != entries.End(); ++entry) {
      const json::String& id = (*entry)["ID"];
      const json::String& alias = (*entry)["Alias"];
      table.AddRow({id.Value(), alias.Value()});
    }
  } catch (const json::Exception& error) {
    throw tevra::osa::Exception("the service's passphrase listing cannot be read: %s",
                                error.what());
  }
  return invocation.Answer(document, table.Render());
}

ExitCode ShowPassphrase(Invocation& invocation, const std::string& id) {
  const SecretText phrase(invocation.Provider().GetPassphrase(id));
  json::Object object;
  object["ID"] = json::String(id);
  if (phrase.Text().empty()) return invocation.Refuse(object, "There is no such passphrase.");
  object["Phrase"] = json::String(phrase.Text());
  object["PhraseBase64"] = json::String(krand::lib::Base64::Encode(phrase.Text()));
  // A pipe gets the bytes as they are, a terminal only what it may show.
  const bool terminal = isatty(STDOUT_FILENO) == 1;
  const SecretText shown((terminal ? Printable(phrase.Text()) : phrase.Text()) + "\n");
  return invocation.Answer(object, shown.Text());
}

ExitCode DeletePassphrase(Invocation& invocation, const std::string& id) {
  const bool deleted = invocation.Provider().DeletePassphrase(id);
  json::Object object;
  object["ID"] = json::String(id);
  object["Deleted"] = json::Boolean(deleted);
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
  const TextArgument id = {"ID", "The passphrase's identifier", true};
  AddTextVerb(*passphrase, invocation, "show", "Print a passphrase in clear", id, ShowPassphrase);
  AddTextVerb(*passphrase, invocation, "delete", "Delete a passphrase", id, DeletePassphrase);
}

}  // namespace vigilactl

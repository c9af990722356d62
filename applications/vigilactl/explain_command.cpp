#include <memory>
#include <string>
#include <vector>

#include "vigila/contract/groups.h"
#include "vigila/contract/result_codes.h"
#include "vigilactl/administration_answer.h"
#include "vigilactl/commands.h"
#include "vigilactl/groups.h"
#include "vigilactl/path_note.h"
#include "vigilactl/permission_names.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/result_sentences.h"
#include "vigilactl/word_kinds.h"

namespace vigilactl {
namespace {

struct ExplainOptions {
  std::vector<std::string> words;  // NAME PATH, or PATH with a session
  std::string session;
};

std::string Quoted(const std::string& text) {
  return "\"" + Printable(text) + "\"";
}

// rule "/jpeg*" = "@operators" (operators and above); bob is in viewers.
std::string Sentence(const Json& answer) {
  const Json& rule = answer.at("Rule");
  if (rule.is_null()) return "no rule governs this path, so it is open to everyone.";
  const std::string text = NameIn(rule, "Text");
  std::string sentence = "rule " + Quoted(NameIn(rule, "Pattern")) + " = " + Quoted(text);
  sentence += " (" + Printable(RuleMeaning(text)) + ")";
  const std::string name = NameIn(answer, "User");
  if (name == vigila::contract::kNobodyName) {
    sentence += "; without a session the account nobody counts.";
  } else {
    sentence +=
        "; " + Printable(name) + " is in " + GroupName(answer.at("Group").get<uint32_t>()) + ".";
  }
  // Only administrators are told who else may.
  const auto open_to = answer.find("OpenTo");
  if (open_to == answer.end()) return sentence;
  return sentence + " Open to: " + Printable(ListOpenTo(*open_to)) + ".";
}

ExitCode Explain(Invocation& invocation, const ExplainOptions& options) {
  const bool by_session = !options.session.empty();
  if (options.words.size() != (by_session ? 1u : 2u)) {
    throw UsageError("give NAME and PATH, or --session TOKEN and PATH");
  }
  const std::string& path = options.words.back();
  NotePathAsWritten(invocation, path);
  const Json answer = ReadAnswer(by_session ? invocation.Administration().ExplainSession(
                                                  invocation.OnBehalfOf(), options.session, path)
                                            : invocation.Administration().ExplainAccount(
                                                  invocation.OnBehalfOf(), options.words[0], path));
  const int code = CodeOf(answer);
  if (code == vigila::contract::kUnknownUser) {
    return invocation.Refuse(answer, "There is no user \"" + options.words[0] +
                                         "\": \"vigilactl user list\" shows all.");
  }
  if (code != 0) return invocation.Refuse(answer, SentenceOf(code));
  const bool granted = answer.at("Granted").get<bool>();
  if (by_session && !answer.at("Session").get<bool>()) {
    invocation.Note("the token belongs to no living session");
  }
  invocation.Answer(answer, (granted ? "granted: " : "refused: ") + Sentence(answer) + "\n");
  return granted ? kDone : kRefused;
}

}  // namespace

void AddExplainCommand(CLI::App& app, Invocation& invocation) {
  const auto options = std::make_shared<ExplainOptions>();
  CLI::App* verb = app.add_subcommand("explain", "Say why a path is open or closed to an account");
  verb->add_option("[NAME] PATH", options->words, "The account, nobody for no session; the path")
      ->required()
      ->expected(1, 2)
      ->type_name(kAccountWord);
  verb->add_option("--session", options->session, "Instead of NAME: the token of a session")
      ->type_name("TOKEN");
  verb->callback([&invocation, options] {
    invocation.Choose([&invocation, options] { return Explain(invocation, *options); });
  });
}

}  // namespace vigilactl

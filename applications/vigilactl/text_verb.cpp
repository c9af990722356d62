#include "vigilactl/text_verb.h"

#include <memory>

namespace vigilactl {

void AddTextVerb(CLI::App& parent, Invocation& invocation, const char* name, const char* help,
                 const TextArgument& argument, ExitCode (*run)(Invocation&, const std::string&)) {
  const auto text = std::make_shared<std::string>();
  CLI::App* verb = parent.add_subcommand(name, help);
  verb->add_option(argument.name, *text, argument.help)
      ->required(argument.required)
      ->type_name(argument.kind);
  verb->callback([&invocation, text, run] {
    invocation.Choose([&invocation, text, run] { return run(invocation, *text); });
  });
}

}  // namespace vigilactl

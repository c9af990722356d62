#include <iostream>
#include <string_view>

#include "vigilactl/command_line.h"
#include "vigilactl/completion.h"

int main(int argc, char** argv) {
  vigilactl::Invocation invocation(std::cout, std::cerr);
  CLI::App app("Administers the accounts, sessions and access rules of a device.", "vigilactl");
  app.set_version_flag("--version", "vigilactl " VIGILA_VERSION, "Print the version");
  vigilactl::AddCommandLine(app, invocation);
  // For the shells' completion only, whose words are no command line yet.
  if (argc > 1 && argv[1] == std::string_view("complete")) {
    return vigilactl::Complete(app, invocation, std::vector<std::string>(argv + 2, argv + argc));
  }
  const vigilactl::CommandWords words =
      vigilactl::FollowWords(app, std::vector<std::string>(argv + 1, argv + argc));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    invocation.json = words.json;  // the parser gave up before it was set
    return invocation.Fail(vigilactl::kUsage, vigilactl::UsageSentence(words, error));
  } catch (const vigilactl::UsageError& error) {
    return invocation.Fail(vigilactl::kUsage, error.what());
  }
  return invocation.Run();
}

#ifndef VIGILACTL_HELP_FORMATTER_H_
#define VIGILACTL_HELP_FORMATTER_H_

#include <CLI/CLI.hpp>
#include <string>

namespace vigilactl {

// Help that fits 80 columns: what is optional stands in brackets, and nothing is said of types. An
// argument's name is written as it is: "[TOKEN] PATH" is one option of the parser's that takes
// both.
class HelpFormatter final : public CLI::Formatter {
 public:
  HelpFormatter();

  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override;
  std::string make_footer(const CLI::App* app) const override;
  std::string make_option_opts(const CLI::Option* option) const override;
  std::string make_option_usage(const CLI::Option* option) const override;
};

}  // namespace vigilactl

#endif  // VIGILACTL_HELP_FORMATTER_H_

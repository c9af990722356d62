#include "vigilactl/help_formatter.h"

#include <utility>

namespace vigilactl {
namespace {

constexpr size_t kNamesWidth = 22;

}  // namespace

HelpFormatter::HelpFormatter() {
  column_width(kNamesWidth);
  label("SUBCOMMAND", "VERB");
  label("Positionals", "Arguments");
}

std::string HelpFormatter::make_help(const CLI::App* app, std::string name,
                                     CLI::AppFormatMode mode) const {
  std::string text = Formatter::make_help(app, std::move(name), mode);
  text.erase(text.find_last_not_of('\n') + 1);
  return text + '\n';
}

std::string HelpFormatter::make_footer(const CLI::App* app) const {
  return app->get_parent() == nullptr ? Formatter::make_footer(app) : "";
}

std::string HelpFormatter::make_option_opts(const CLI::Option* option) const {
  const bool takes_value = option->get_type_size() != 0;
  return takes_value && !option->get_positional() ? " " + option->get_type_name() : "";
}

std::string HelpFormatter::make_option_usage(const CLI::Option* option) const {
  const std::string name = make_option_name(option, true);
  return name.find(' ') == std::string::npos ? Formatter::make_option_usage(option) : name;
}

}  // namespace vigilactl

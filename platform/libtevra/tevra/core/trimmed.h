#ifndef TEVRA_CORE_TRIMMED_H_
#define TEVRA_CORE_TRIMMED_H_

#include <string_view>

namespace tevra::core {

// The text without the blanks at its ends. A view of the same characters.
constexpr std::string_view Trimmed(std::string_view text, std::string_view blanks = " \t") {
  const size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace tevra::core

#endif  // TEVRA_CORE_TRIMMED_H_

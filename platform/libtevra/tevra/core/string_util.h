#ifndef TEVRA_CORE_STRING_UTIL_H_
#define TEVRA_CORE_STRING_UTIL_H_

#include <string>
#include <string_view>
#include <vector>

namespace tevra::core {

class StringUtil {
 public:
  // True when `text` matches `pattern`: "*" stands for any run of bytes, the empty run and "/"
  // included; every other byte stands for itself. Time is linear in the text for each "*".
  static bool MatchesPattern(std::string_view pattern, std::string_view text);

  // The fields of `text` between separators, empty fields kept: "/a" gives "", "a"; "" gives "".
  static std::vector<std::string> Split(std::string_view text, char separator);
};

}  // namespace tevra::core

#endif  // TEVRA_CORE_STRING_UTIL_H_

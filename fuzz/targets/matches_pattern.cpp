// Pattern and text are split at the first zero byte. The answer must be that of the definition,
// worked out by dynamic programming.
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "tevra/core/string_util.h"

namespace {

bool ByDefinition(std::string_view pattern, std::string_view text) {
  std::vector<bool> matches(text.size() + 1, false);  // pattern so far against text[0, i)
  matches[0] = true;
  for (const char c : pattern) {
    std::vector<bool> next(text.size() + 1, false);
    bool any_before = false;
    for (size_t i = 0; i <= text.size(); ++i) {
      any_before = any_before || matches[i];
      next[i] = c == '*' ? any_before : i > 0 && matches[i - 1] && text[i - 1] == c;
    }
    matches = next;
  }
  return matches[text.size()];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 512) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\0');
  if (split == std::string_view::npos) return 0;
  const std::string_view pattern = input.substr(0, split);
  const std::string_view text = input.substr(split + 1);
  if (tevra::core::StringUtil::MatchesPattern(pattern, text) != ByDefinition(pattern, text)) {
    std::abort();
  }
  return 0;
}

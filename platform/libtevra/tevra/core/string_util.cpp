#include "tevra/core/string_util.h"

#include <cstring>

namespace tevra::core {

bool StringUtil::MatchesPattern(std::string_view pattern, std::string_view text) {
  size_t star = pattern.find('*');
  if (star == std::string_view::npos) return pattern == text;

  const std::string_view head = pattern.substr(0, star);
  const std::string_view tail = pattern.substr(pattern.rfind('*') + 1);
  if (text.size() < head.size() + tail.size()) return false;
  if (!text.starts_with(head) || !text.ends_with(tail)) return false;
  text = text.substr(head.size(), text.size() - head.size() - tail.size());
  pattern = pattern.substr(star + 1, pattern.size() - head.size() - tail.size() - 1);

  // What is left of the pattern is runs of literals, each followed by a star: the leftmost place of
  // each run is as good as any. memmem is linear where string_view::find is not.
  while (!pattern.empty()) {
    star = pattern.find('*');
    const void* found = memmem(text.data(), text.size(), pattern.data(), star);
    if (found == nullptr) return false;
    text.remove_prefix(static_cast<size_t>(static_cast<const char*>(found) - text.data()) + star);
    pattern.remove_prefix(star + 1);
  }
  return true;
}

std::vector<std::string> StringUtil::Split(std::string_view text, char separator) {
  std::vector<std::string> fields;
  while (true) {
    const size_t end = text.find(separator);
    fields.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) return fields;
    text.remove_prefix(end + 1);
  }
}

}  // namespace tevra::core

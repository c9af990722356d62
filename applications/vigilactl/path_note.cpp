#include "vigilactl/path_note.h"

#include <algorithm>

namespace vigilactl {
namespace {

bool HasDotSegment(std::string_view path) {
  for (size_t start = 0; start <= path.size();) {
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string_view segment = path.substr(start, end - start);
    if (segment == "." || segment == "..") return true;
    start = end + 1;
  }
  return false;
}

}  // namespace

std::string PathDoubt(std::string_view path) {
  if (!path.starts_with('/')) return "does not begin with \"/\"";
  if (path.find_first_of("?#") != std::string_view::npos) return "has a query or a fragment";
  if (path.find("//") != std::string_view::npos) return "has two slashes in a row";
  if (HasDotSegment(path)) return "has a \".\" or \"..\" segment";
  if (path.find('%') != std::string_view::npos) return "is percent-encoded";
  return {};
}

void NotePathAsWritten(Invocation& invocation, std::string_view path) {
  const std::string doubt = PathDoubt(path);
  if (doubt.empty()) return;
  invocation.Note("the path " + doubt +
                  "; it is judged as written, and web servers ask for the canonical one");
}

}  // namespace vigilactl

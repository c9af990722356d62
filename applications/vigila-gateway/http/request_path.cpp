#include "vigila-gateway/http/request_path.h"

#include <algorithm>
#include <vector>

#include "tevra/core/utf8.h"
#include "vigila-gateway/http/http_message.h"
#include "vigila-gateway/http/percent_decode.h"

namespace vigila::gateway {
namespace {

// Cuts "scheme://authority" off; proxies send it, and clients sign it.
std::optional<std::string_view> WithoutOrigin(std::string_view target) {
  if (target.starts_with('/')) return target;
  const size_t colon = target.find("://");
  if (colon == 0 || colon == std::string_view::npos) return std::nullopt;
  const bool scheme =
      std::all_of(target.begin(), target.begin() + static_cast<ptrdiff_t>(colon),
                  [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); });
  if (!scheme) return std::nullopt;
  const size_t path = target.find_first_of("/?", colon + 3);
  return path == std::string_view::npos ? std::string_view() : target.substr(path);
}

std::string RemoveDotSegments(std::string_view path) {
  std::vector<std::string_view> kept;
  bool directory = true;
  size_t start = 0;
  while (start <= path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string_view segment = path.substr(start, end - start);
    directory = segment.empty() || segment == "." || segment == "..";
    if (segment == ".." && !kept.empty()) kept.pop_back();
    if (!directory) kept.push_back(segment);
    start = end + 1;
  }
  std::string canonical;
  for (const std::string_view segment : kept) canonical.append("/").append(segment);
  if (directory || kept.empty()) canonical.push_back('/');
  return canonical;
}

}  // namespace

std::optional<RequestTarget> ParseRequestTarget(std::string_view target) {
  if (target.size() > kMaximumTargetBytes) return std::nullopt;
  if (std::any_of(target.begin(), target.end(), [](char c) { return IsControl(c) || c == ' '; })) {
    return std::nullopt;
  }
  target = target.substr(0, target.find('#'));
  const std::optional<std::string_view> local = WithoutOrigin(target);
  if (!local) return std::nullopt;
  const size_t question = std::min(local->find('?'), local->size());
  const std::optional<std::string> path = PercentDecode(local->substr(0, question));
  if (!path || !tevra::core::IsUtf8(*path) || std::any_of(path->begin(), path->end(), IsControl)) {
    return std::nullopt;
  }
  const std::string_view query =
      question == local->size() ? std::string_view() : local->substr(question + 1);
  return RequestTarget{RemoveDotSegments(*path), std::string(query)};
}

}  // namespace vigila::gateway

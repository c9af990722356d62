#ifndef VIGILA_GATEWAY_HTTP_REQUEST_PATH_H_
#define VIGILA_GATEWAY_HTTP_REQUEST_PATH_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vigila::gateway {

// What a request asks for. The path is canonical: the same text is checked, served and logged, so
// that no second way of writing a path slips past its rule.
struct RequestTarget {
  std::string path;
  std::string query;  // as sent, without "?"

  bool operator==(const RequestTarget&) const = default;
};

constexpr size_t kMaximumTargetBytes = 8 * 1024;

// Reads a request target ("/a?b", or "http://host/a?b"). The path is percent-decoded exactly once,
// then repeated slashes are merged and dot segments removed; ".." at the root stays at the root.
// Query and fragment are cut off. Nothing when the target is too long or not a path, or when the
// decoded path holds a broken escape, a control byte or bytes that are not UTF-8.
std::optional<RequestTarget> ParseRequestTarget(std::string_view target);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_HTTP_REQUEST_PATH_H_

// A canonical path is one: absolute, without dot segments or repeated slashes, and written as a
// path it is read as itself.
#include "vigila-gateway/http/request_path.h"

#include <cstdint>
#include <cstdlib>
#include <string>

#include "tevra/core/hexadecimal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using vigila::gateway::ParseRequestTarget;
  const auto target = ParseRequestTarget({reinterpret_cast<const char*>(data), size});
  if (!target) return 0;
  const std::string& path = target->path;
  if (path.empty() || path.front() != '/') std::abort();
  for (const char* part : {"//", "/./", "/../"}) {
    if (path.find(part) != std::string::npos) std::abort();
  }
  if (path.ends_with("/.") || path.ends_with("/..")) std::abort();
  std::string written;
  for (const char c : path) {
    written.push_back('%');
    tevra::core::AppendHexadecimal(c, written);
  }
  // The first slash makes it a path and not another form of target.
  written.replace(0, 3, "/");
  const auto again = ParseRequestTarget(written);
  if (written.size() <= vigila::gateway::kMaximumTargetBytes && (!again || again->path != path)) {
    std::abort();
  }
  return 0;
}

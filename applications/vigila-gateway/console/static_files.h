#ifndef VIGILA_GATEWAY_CONSOLE_STATIC_FILES_H_
#define VIGILA_GATEWAY_CONSOLE_STATIC_FILES_H_

#include <cstddef>
#include <optional>
#include <string>

#include "tevra/osa/descriptor.h"
#include "vigila-gateway/http/http_message.h"

namespace vigila::gateway {

// The regular files under one directory. Links are not followed: what lies outside stays outside.
// Nothing is served whose name, or a directory's on the way, begins with a dot.
class StaticFiles final {
 public:
  static constexpr size_t kMaximumBytes = 16 * 1024 * 1024;

  // Throws std::system_error when the directory cannot be opened.
  explicit StaticFiles(const std::string& directory);

  // The file at a canonical path; nothing when there is none that may be served.
  std::optional<HttpResponse> Read(const std::string& path) const;
  bool Has(const std::string& path) const;

 private:
  const tevra::osa::Descriptor directory_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_CONSOLE_STATIC_FILES_H_

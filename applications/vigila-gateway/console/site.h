#ifndef VIGILA_GATEWAY_CONSOLE_SITE_H_
#define VIGILA_GATEWAY_CONSOLE_SITE_H_

#include <memory>
#include <string>

#include "vigila-gateway/console/static_files.h"
#include "vigila-gateway/http/http_message.h"

namespace vigila::gateway {

// The built-in site, small but with one page for each kind of access rule, so that one can see the
// service at work; beside it, the files of a directory. Answers what was asked for and granted
// already. Any thread may call.
class Site final {
 public:
  static constexpr unsigned kPictures = 40;

  // Without a directory, the built-in pages are all there is.
  explicit Site(std::unique_ptr<StaticFiles> files) : files_(std::move(files)) {}

  // `path` is the canonical one that access was granted to.
  HttpResponse Respond(const std::string& method, const std::string& path) const;

 private:
  HttpResponse RespondFile(const std::string& path) const;

  const std::unique_ptr<StaticFiles> files_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_CONSOLE_SITE_H_

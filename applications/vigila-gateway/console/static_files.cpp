#include "vigila-gateway/console/static_files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <system_error>

namespace vigila::gateway {
namespace {

using tevra::osa::Descriptor;

struct MediaType {
  std::string_view suffix;
  const char* type;
};

constexpr MediaType kMediaTypes[] = {
    {".html", "text/html; charset=utf-8"},
    {".css", "text/css"},
    {".js", "text/javascript"},
    {".json", "application/json"},
    {".txt", "text/plain; charset=utf-8"},
    {".jpg", "image/jpeg"},
    {".jpeg", "image/jpeg"},
    {".png", "image/png"},
    {".svg", "image/svg+xml"},
};

const char* TypeOf(std::string_view path) {
  for (const MediaType& media : kMediaTypes) {
    if (path.ends_with(media.suffix)) return media.type;
  }
  return "application/octet-stream";
}

Descriptor OpenDirectory(const std::string& directory) {
  Descriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened) throw std::system_error(errno, std::generic_category(), directory);
  return opened;
}

// Names with a dot in front are not meant to be seen: version control, passwords for other servers,
// what an editor leaves behind.
bool IsHidden(const std::string& path) {
  return path.find("/.") != std::string::npos;
}

// What stands at a canonical path.
Descriptor OpenBeneath(const Descriptor& directory, const std::string& path) {
  if (IsHidden(path)) return Descriptor();
  open_how how = {};
  how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  return Descriptor(
      static_cast<int>(syscall(SYS_openat2, directory.get(), path.c_str() + 1, &how, sizeof(how))));
}

bool ReadAll(int fd, std::string& content) {
  struct stat status = {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (status.st_size > static_cast<off_t>(StaticFiles::kMaximumBytes)) return false;
  content.resize(static_cast<size_t>(status.st_size));
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t n = read(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

StaticFiles::StaticFiles(const std::string& directory) : directory_(OpenDirectory(directory)) {}

std::optional<HttpResponse> StaticFiles::Read(const std::string& path) const {
  const Descriptor file = OpenBeneath(directory_, path);
  HttpResponse response;
  if (!file || !ReadAll(file.get(), response.body)) return std::nullopt;
  response.headers = {{"Content-Type", TypeOf(path)}, {"X-Content-Type-Options", "nosniff"}};
  return response;
}

bool StaticFiles::Has(const std::string& path) const {
  const Descriptor file = OpenBeneath(directory_, path);
  struct stat status = {};
  return file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace vigila::gateway

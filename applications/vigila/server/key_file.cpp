#include "vigila/server/key_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "tevra/osa/descriptor.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/unfinished_file.h"

namespace vigila::server {

namespace {

using tevra::core::SecretText;
using tevra::osa::Descriptor;
using tevra::osa::Exception;
using tevra::osa::UnfinishedFile;

[[noreturn]] void ThrowSystemError(const std::string& path, const char* what) {
  throw Exception("key file %s: %s: %s", path.c_str(), what, std::strerror(errno));
}

void CheckAccess(const std::string& path, KeyFile::Kind kind, const struct stat& status) {
  if (!S_ISREG(status.st_mode)) {
    throw Exception("key file %s: not a regular file", path.c_str());
  }
  if (status.st_uid != geteuid() && status.st_uid != 0) {
    throw Exception("key file %s: owned by another user (uid %u)", path.c_str(), status.st_uid);
  }
  const mode_t forbidden = kind == KeyFile::Kind::kCredential ? 0027 : 0077;
  if ((status.st_mode & forbidden) != 0) {
    throw Exception("key file %s: open to others (mode %04o), must be 0600", path.c_str(),
                    status.st_mode & 07777);
  }
}

void WriteAll(int fd, const SecretText& bytes) {
  size_t length = 0;
  while (length < bytes.Size()) {
    const ssize_t n = write(fd, bytes.Data() + length, bytes.Size() - length);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::system_error(errno, std::generic_category(), "cannot be written");
    length += static_cast<size_t>(n);
  }
  if (fsync(fd) != 0) throw std::system_error(errno, std::generic_category(), "cannot be written");
}

}  // namespace

std::unique_ptr<SecretText> KeyFile::Read(const std::string& path, Kind kind, size_t minimum,
                                          size_t maximum) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (file.get() < 0) {
    if (errno == ENOENT) return nullptr;
    ThrowSystemError(path, "cannot be opened");
  }
  struct stat status {};
  if (fstat(file.get(), &status) != 0) ThrowSystemError(path, "cannot be examined");
  CheckAccess(path, kind, status);
  if (status.st_size < static_cast<off_t>(minimum) ||
      status.st_size > static_cast<off_t>(maximum)) {
    throw Exception("key file %s: damaged, %lld bytes is no key's size", path.c_str(),
                    static_cast<long long>(status.st_size));
  }
  auto bytes = std::make_unique<SecretText>(static_cast<size_t>(status.st_size));
  size_t length = 0;
  while (length < bytes->Size()) {
    const ssize_t n = read(file.get(), bytes->Data() + length, bytes->Size() - length);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ThrowSystemError(path, "cannot be read");
    if (n == 0) throw Exception("key file %s: damaged, it ends early", path.c_str());
    length += static_cast<size_t>(n);
  }
  return bytes;
}

bool KeyFile::CanBeMade(const std::string& path) {
  if (access(path.c_str(), F_OK) == 0) return false;
  if (access(UnfinishedFile::DirectoryOf(path).c_str(), W_OK | X_OK) != 0) {
    ThrowSystemError(path, "cannot be made");
  }
  return true;
}

bool KeyFile::Make(const std::string& path, const SecretText& bytes) {
  try {
    UnfinishedFile::RemoveRemains(path);
    UnfinishedFile file(path);
    WriteAll(file.get(), bytes);
    // Never over an existing file: two processes that both found none must end with one key.
    return file.MoveIntoPlace();
  } catch (const std::system_error& failure) {
    throw Exception("key file %s: %s", path.c_str(), failure.what());
  }
}

}  // namespace vigila::server

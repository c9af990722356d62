#include "vigila/server/key_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "tevra/osa/descriptor.h"
#include "tevra/osa/exception.h"

namespace vigila::server {

namespace {

using tevra::core::SecretText;
using tevra::osa::Descriptor;
using tevra::osa::Exception;

// Behind a key file's name while it is being written; not a name that a backup would have.
constexpr std::string_view kUnfinished = ".unfinished-";
constexpr std::string_view kPlaceholder = "XXXXXX";

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

void WriteAll(const std::string& path, int fd, const SecretText& bytes) {
  size_t length = 0;
  while (length < bytes.Size()) {
    const ssize_t n = write(fd, bytes.Data() + length, bytes.Size() - length);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ThrowSystemError(path, "cannot be written");
    length += static_cast<size_t>(n);
  }
  if (fsync(fd) != 0) ThrowSystemError(path, "cannot be written");
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// Removes what processes left that were killed while they wrote this file. One that still writes
// holds the lock.
void RemoveRemains(const std::string& path) {
  const std::string prefix =
      std::filesystem::path(path).filename().string() + std::string(kUnfinished);
  std::error_code failure;  // then it stays; nothing ever reads it
  std::filesystem::directory_iterator entry(DirectoryOf(path), failure);
  for (; !failure && entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
    const std::string name = entry->path().filename().string();
    if (!name.starts_with(prefix) || name.size() != prefix.size() + kPlaceholder.size()) continue;
    const std::string remains = entry->path().string();
    const Descriptor file(open(remains.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.get() >= 0 && flock(file.get(), LOCK_EX | LOCK_NB) == 0) unlink(remains.c_str());
  }
}

// A file under a name of its own, removed again unless it was moved into place.
class UnfinishedFile final {
 public:
  explicit UnfinishedFile(const std::string& path)
      : path_(path),
        name_(path + std::string(kUnfinished) + std::string(kPlaceholder)),
        file_(mkostemp(name_.data(), O_CLOEXEC)) {
    if (file_.get() < 0) ThrowSystemError(path_, "cannot be made");
    // Should somebody take it for remains before this, the move fails.
    flock(file_.get(), LOCK_EX | LOCK_NB);
  }
  ~UnfinishedFile() {
    if (!moved_) unlink(name_.c_str());
  }
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;

  int Get() const { return file_.get(); }

  // Never over an existing file: two processes that both found none must end with one key. File
  // systems that cannot promise that get a plain rename. False when there is a file.
  bool MoveIntoPlace() {
    if (renameat2(AT_FDCWD, name_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE) == 0) {
      return moved_ = true;
    }
    if (errno == EEXIST) return false;
    if (errno != EINVAL && errno != ENOSYS) ThrowSystemError(path_, "cannot be made");
    if (access(path_.c_str(), F_OK) == 0) return false;
    if (rename(name_.c_str(), path_.c_str()) != 0) ThrowSystemError(path_, "cannot be made");
    return moved_ = true;
  }

 private:
  const std::string path_;
  std::string name_;
  const Descriptor file_;
  bool moved_ = false;
};

void FlushDirectory(const std::string& path) {
  const Descriptor directory(open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() < 0 || fsync(directory.get()) != 0) {
    ThrowSystemError(path, "its directory cannot be flushed");
  }
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
  if (access(DirectoryOf(path).c_str(), W_OK | X_OK) != 0) ThrowSystemError(path, "cannot be made");
  return true;
}

bool KeyFile::Make(const std::string& path, const SecretText& bytes) {
  RemoveRemains(path);
  UnfinishedFile file(path);
  WriteAll(path, file.Get(), bytes);
  if (!file.MoveIntoPlace()) return false;
  FlushDirectory(path);
  return true;
}

}  // namespace vigila::server

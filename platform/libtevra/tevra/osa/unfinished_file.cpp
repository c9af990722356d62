#include "tevra/osa/unfinished_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <system_error>

namespace tevra::osa {

namespace {

// Not a name that a backup would have.
constexpr std::string_view kUnfinished = ".unfinished-";
constexpr std::string_view kPlaceholder = "XXXXXX";

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// The file goes last: it is what leads to the others, should this be cut short.
void Remove(const std::string& name, UnfinishedFile::Companions companions) {
  for (const char* const companion : companions) unlink((name + companion).c_str());
  unlink(name.c_str());
}

}  // namespace

UnfinishedFile::UnfinishedFile(const std::string& path, Companions companions)
    : path_(path), companions_(companions) {
  while (!Make()) {
  }
}

UnfinishedFile::~UnfinishedFile() {
  Remove(name_, companions_);
}

bool UnfinishedFile::Make() {
  name_ = path_ + std::string(kUnfinished) + std::string(kPlaceholder);
  file_.Reset(mkostemp(name_.data(), O_CLOEXEC));
  if (!file_) Fail("cannot be made");
  if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return false;
  struct stat status;
  return fstat(file_.get(), &status) != 0 || status.st_nlink > 0;
}

bool UnfinishedFile::MoveIntoPlace() {
  if (renameat2(AT_FDCWD, name_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE) != 0) {
    if (errno == EEXIST) return false;
    if (errno != EINVAL && errno != ENOSYS) Fail("cannot be made");
    if (access(path_.c_str(), F_OK) == 0) return false;
    if (rename(name_.c_str(), path_.c_str()) != 0) Fail("cannot be made");
  }
  FlushDirectoryOf(path_);
  return true;
}

void UnfinishedFile::Replace() {
  if (rename(name_.c_str(), path_.c_str()) != 0) Fail("cannot be replaced");
  FlushDirectoryOf(path_);
}

// What cannot be listed stays; nothing ever reads it.
void UnfinishedFile::RemoveRemains(const std::string& path, Companions companions) {
  const size_t name_begin = path.rfind('/') + 1;
  const std::string prefix = path.substr(name_begin) + std::string(kUnfinished);
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(DirectoryOf(path).c_str()), closedir);
  while (const dirent* const entry = directory ? readdir(directory.get()) : nullptr) {
    const std::string name = entry->d_name;
    if (!name.starts_with(prefix) || name.size() != prefix.size() + kPlaceholder.size()) continue;
    const std::string remains = path.substr(0, name_begin) + name;
    const Descriptor file(open(remains.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file && flock(file.get(), LOCK_EX | LOCK_NB) == 0) Remove(remains, companions);
  }
}

std::string UnfinishedFile::DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

void UnfinishedFile::FlushDirectoryOf(const std::string& path) {
  const Descriptor directory(open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || fsync(directory.get()) != 0) Fail("its directory cannot be flushed");
}

}  // namespace tevra::osa

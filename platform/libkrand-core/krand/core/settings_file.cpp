#include "krand/core/settings_file.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string_view>

#include "krand/core/settings_failure.h"

namespace krand::core {

namespace {

// Behind a store's name while it is being made; not a name that a backup would have.
constexpr std::string_view kUnfinished = ".unfinished-";
constexpr std::string_view kPlaceholder = "XXXXXX";
constexpr const char* kCompanions[] = {"-journal", "-wal", "-shm"};

[[noreturn]] void Fail(const std::string& path, const std::string& what, int error) {
  throw SettingsFailure(path + ": " + what + ": " + strerror(error));
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

void Flush(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    Fail(path, "cannot be opened", errno);
  }
  const int result = fsync(fd);
  const int error = errno;
  close(fd);
  if (result != 0) {
    Fail(path, "cannot be flushed", error);
  }
}

void MakeDirectory(const std::string& directory) {
  struct stat status;
  if (stat(directory.c_str(), &status) == 0) {
    if (!S_ISDIR(status.st_mode)) {
      Fail(directory, "cannot be the settings directory", ENOTDIR);
    }
    return;
  }
  std::filesystem::path leaf = std::filesystem::path(directory).parent_path();
  std::error_code ignored;  // mkdir below says what is wrong
  std::filesystem::create_directories(leaf.parent_path(), ignored);
  if (mkdir(leaf.c_str(), 0700) != 0 && errno != EEXIST) {
    Fail(directory, "cannot make the settings directory", errno);
  }
  Flush(DirectoryOf(leaf.string()));
}

class Descriptor final {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return fd_; }

 private:
  const int fd_;
};

// The file goes last: it is what leads to the others, should this be cut short.
void RemoveWithCompanions(const std::string& path) {
  for (const char* companion : kCompanions) {
    unlink((path + companion).c_str());
  }
  unlink(path.c_str());
}

// Removes what processes left that were killed while they made this store. One that is still at it
// holds the lock.
void RemoveRemains(const std::string& path) {
  const std::string prefix =
      std::filesystem::path(path).filename().string() + std::string(kUnfinished);
  std::error_code failure;  // then they stay; nothing ever reads them
  std::filesystem::directory_iterator entry(DirectoryOf(path), failure);
  for (; !failure && entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
    const std::string name = entry->path().filename().string();
    if (!name.starts_with(prefix) || name.size() != prefix.size() + kPlaceholder.size()) continue;
    const std::string remains = entry->path().string();
    const Descriptor file(open(remains.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.Get() >= 0 && flock(file.Get(), LOCK_EX | LOCK_NB) == 0) RemoveWithCompanions(remains);
  }
}

// A complete empty store under a name of its own; removed again unless Publish moved it away.
class NewStore final {
 public:
  explicit NewStore(const std::string& path) : path_(path) {
    while (!MakeFile()) {
    }
  }
  ~NewStore() { RemoveWithCompanions(name_); }
  NewStore(const NewStore&) = delete;
  NewStore& operator=(const NewStore&) = delete;

  void Fill() {
    sqlite3* raw = nullptr;
    int result = sqlite3_open_v2(name_.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> database(raw, sqlite3_close);
    if (result == SQLITE_OK) {
      // Nobody knows the file yet: one flush at the end is enough.
      const std::string sql =
          "PRAGMA synchronous=OFF;PRAGMA journal_mode=WAL;BEGIN;PRAGMA application_id=" +
          std::to_string(SettingsFile::kApplicationId) +
          ";PRAGMA user_version=" + std::to_string(SettingsFile::kVersion) + ";" +
          SettingsFile::kSchema + ";COMMIT;PRAGMA wal_checkpoint(TRUNCATE)";
      result = sqlite3_exec(raw, sql.c_str(), nullptr, nullptr, nullptr);
    }
    if (result != SQLITE_OK) {
      throw SettingsFailure(path_ + ": cannot make a new settings store: " +
                            (raw == nullptr ? sqlite3_errstr(result) : sqlite3_errmsg(raw)));
    }
    database.reset();
    Flush(name_);
  }

  // Takes the store's own name unless another process did so first; then that one's store stands.
  // File systems that cannot promise that get a plain rename.
  void Publish() {
    int result = renameat2(AT_FDCWD, name_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE);
    const bool unsupported = result != 0 && (errno == EINVAL || errno == ENOSYS);
    if (unsupported && access(path_.c_str(), F_OK) != 0) {
      result = rename(name_.c_str(), path_.c_str());
    } else if (unsupported) {
      errno = EEXIST;
    }
    if (result != 0 && errno != EEXIST) Fail(path_, "cannot make a new settings store", errno);
    Flush(DirectoryOf(path_));
  }

 private:
  // False when another process took the file for remains before it was locked.
  bool MakeFile() {
    name_ = path_ + std::string(kUnfinished) + std::string(kPlaceholder);
    file_ = std::make_unique<Descriptor>(mkostemp(name_.data(), O_CLOEXEC));
    if (file_->Get() < 0) {
      Fail(path_, "cannot make a new settings store", errno);
    }
    if (flock(file_->Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      return false;
    }
    struct stat status;
    return fstat(file_->Get(), &status) != 0 || status.st_nlink > 0;
  }

  const std::string path_;
  std::string name_;
  // Holds the lock. Closed after SQLite is done with the file: whoever closes any descriptor of it
  // gives up SQLite's locks.
  std::unique_ptr<Descriptor> file_;
};

void MakeStore(const std::string& path) {
  struct stat log;
  // The log may be that of a store which another process has made in this moment.
  if (stat((path + "-wal").c_str(), &log) == 0 && log.st_size > 0 &&
      access(path.c_str(), F_OK) != 0) {
    throw SettingsFailure(path + ": is missing, but the log of its last changes is still there");
  }
  NewStore store(path);
  store.Fill();
  store.Publish();
}

void CheckStore(const std::string& path, const struct stat& status) {
  if (!S_ISREG(status.st_mode)) {
    throw SettingsFailure(path + ": is not a regular file");
  }
  if (status.st_size == 0) {
    throw SettingsFailure(path + ": is empty, which a settings store never is");
  }
  if ((status.st_mode & 077) != 0 && chmod(path.c_str(), 0600) != 0) {
    Fail(path, "cannot be closed to other users", errno);
  }
}

}  // namespace

void SettingsFile::Prepare(const std::string& path) {
  MakeDirectory(DirectoryOf(path));
  RemoveRemains(path);
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    if (errno != ENOENT) {
      Fail(path, "cannot be read", errno);
    }
    MakeStore(path);
    if (stat(path.c_str(), &status) != 0) {
      Fail(path, "cannot be read", errno);
    }
  }
  CheckStore(path, status);
}

}  // namespace krand::core

#include "vigila/server/store_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vigila/server/start_failure.h"

namespace vigila::server {

// The lock is on the directory. On the file it would not do: whoever closes a descriptor of an
// SQLite file gives up the locks that SQLite has on it.
StoreLock::StoreLock(const std::string& store)
    : directory_(
          open(store.substr(0, store.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (directory_ >= 0 && flock(directory_, LOCK_EX | LOCK_NB) == 0) return;
  const int error = errno;
  if (directory_ >= 0) close(directory_);
  if (error == EWOULDBLOCK) {
    throw StartFailure(StartFailure::kInUse, (store + " is held by another daemon").c_str());
  }
  throw StartFailure(StartFailure::kStore,
                     (store + " cannot be locked: " + std::strerror(error)).c_str());
}

StoreLock::~StoreLock() {
  close(directory_);
}

}  // namespace vigila::server

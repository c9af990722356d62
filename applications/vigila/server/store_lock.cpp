#include "vigila/server/store_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vigila/server/start_failure.h"

namespace vigila::server {

// Neither on the directory, which anybody could lock who may read it, nor on the store: whoever
// closes a descriptor of an SQLite file gives up the locks that SQLite has on it. Opened for
// reading only, so that a lock file that is there also opens on a file system that takes no writes.
StoreLock::StoreLock(const std::string& store) : owner_(getpid()) {
  if (store.empty()) return;
  const std::string path = store + ".lock";
  file_.Reset(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (file_ && flock(file_.get(), LOCK_EX | LOCK_NB) == 0) return;
  const int error = errno;
  if (error == EWOULDBLOCK) {
    throw StartFailure(StartFailure::kInUse, (store + " is held by another daemon").c_str());
  }
  throw StartFailure(StartFailure::kStore,
                     (path + " cannot be locked: " + std::strerror(error)).c_str());
}

StoreLock::~StoreLock() {
  // Unlocked explicitly, because a copy of the descriptor in a child of fork would keep the lock;
  // the child itself must not unlock it.
  if (file_ && getpid() == owner_) flock(file_.get(), LOCK_UN);
}

}  // namespace vigila::server

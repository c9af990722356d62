#ifndef VIGILA_SERVER_STORE_LOCK_H_
#define VIGILA_SERVER_STORE_LOCK_H_

#include <sys/types.h>

#include <string>

#include "tevra/osa/descriptor.h"
#include "vigila/server/export.h"

namespace vigila::server {

// Keeps a settings store to one server, whichever bus the others are on: a server holds the
// accounts in memory and would not see what another one writes. Held until the end of its life or
// of the process, however that ends; a child of fork does not give it up, and keeps it only beyond
// a process that was killed. The lock is on a file of its own, named as the store with ".lock"
// appended, which stays: one that was deleted could be held by two. Other programs may open the
// store.
class VIGILA_EXPORT StoreLock final {
 public:
  // `store` is the file; empty, where a platform keeps its settings elsewhere, and there is no
  // lock. Throws a StartFailure that names it: kInUse when another server holds the lock, kStore
  // when there can be none.
  explicit StoreLock(const std::string& store);
  ~StoreLock();
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;

 private:
  const pid_t owner_;
  tevra::osa::Descriptor file_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_STORE_LOCK_H_

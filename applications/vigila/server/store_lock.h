#ifndef VIGILA_SERVER_STORE_LOCK_H_
#define VIGILA_SERVER_STORE_LOCK_H_

#include <string>

namespace vigila::server {

// Keeps a settings store to one server, whichever bus the others are on: a server holds the
// accounts in memory and would not see what another one writes. Held until the end of its life or
// of the process, however that ends, and leaves nothing on the disk. Other programs may open the
// store.
class StoreLock final {
 public:
  // `store` is the file. Throws a StartFailure that names it: kInUse when another server holds the
  // lock, kStore when there can be none.
  explicit StoreLock(const std::string& store);
  ~StoreLock();
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;

 private:
  int directory_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_STORE_LOCK_H_

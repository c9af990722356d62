#ifndef TEVRA_OSA_FILE_IDENTITY_H_
#define TEVRA_OSA_FILE_IDENTITY_H_

#include <sys/stat.h>

namespace tevra::osa {

// Which file a number stood for when this was made. Every socket has an inode number of its own for
// as long as anyone holds it.
class FileIdentity final {
 public:
  FileIdentity() = default;
  explicit FileIdentity(int fd) {
    struct stat file;
    if (fstat(fd, &file) != 0) return;
    device_ = file.st_dev;
    inode_ = file.st_ino;
  }

  // Whether the number still stands for that file; false for ever when it stood for none.
  bool IsOf(int fd) const {
    const FileIdentity now(fd);
    return inode_ != 0 && now.inode_ == inode_ && now.device_ == device_;
  }

 private:
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace tevra::osa

#endif  // TEVRA_OSA_FILE_IDENTITY_H_

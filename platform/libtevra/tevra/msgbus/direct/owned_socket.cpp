#include "tevra/msgbus/direct/owned_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <utility>

namespace tevra::msgbus {

OwnedSocket::OwnedSocket(osa::Descriptor socket) : socket_(std::move(socket)) {
  struct stat status {};
  if (!socket_ || fstat(socket_.get(), &status) != 0) return;
  device_ = status.st_dev;
  inode_ = status.st_ino;
}

OwnedSocket& OwnedSocket::operator=(OwnedSocket&& other) noexcept {
  Close();
  socket_ = std::move(other.socket_);
  device_ = other.device_;
  inode_ = other.inode_;
  return *this;
}

// Every socket has an inode number of its own for as long as anyone holds it.
bool OwnedSocket::IsIntact() const {
  struct stat status {};
  return socket_ && fstat(socket_.get(), &status) == 0 && status.st_ino == inode_ &&
         status.st_dev == device_;
}

void OwnedSocket::Close() {
  if (!socket_) return;
  if (!IsIntact()) {
    static_cast<void>(socket_.Release());
    return;
  }
  shutdown(socket_.get(), SHUT_RDWR);
  socket_.Reset();
}

}  // namespace tevra::msgbus

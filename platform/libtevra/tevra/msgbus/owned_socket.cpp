#include "tevra/msgbus/owned_socket.h"

#include <sys/socket.h>

namespace tevra::msgbus {

OwnedSocket& OwnedSocket::operator=(OwnedSocket&& other) noexcept {
  Close();
  socket_ = std::move(other.socket_);
  identity_ = other.identity_;
  return *this;
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

#ifndef TEVRA_MSGBUS_OWNED_SOCKET_H_
#define TEVRA_MSGBUS_OWNED_SOCKET_H_

#include <utility>

#include "tevra/osa/descriptor.h"
#include "tevra/osa/file_identity.h"

namespace tevra::msgbus {

// A socket in a program that may close descriptors that it did not open, as daemons do that begin
// with closefrom(): the number then belongs to another file of the program, into which nothing may
// be written, from which nothing may be believed, and which must not be closed here. Not
// synchronised.
class OwnedSocket final {
 public:
  OwnedSocket() = default;
  explicit OwnedSocket(osa::Descriptor socket)
      : socket_(std::move(socket)), identity_(socket_.get()) {}
  OwnedSocket(OwnedSocket&&) = default;
  OwnedSocket& operator=(OwnedSocket&& other) noexcept;
  ~OwnedSocket() { Close(); }

  int get() const { return socket_.get(); }
  explicit operator bool() const { return static_cast<bool>(socket_); }
  // Whether the number is still this socket's.
  bool IsIntact() const { return identity_.IsOf(socket_.get()); }
  // Ends the connection also where another process holds a copy of the descriptor. A number that
  // is no longer ours is left alone.
  void Close();

 private:
  osa::Descriptor socket_;
  osa::FileIdentity identity_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_OWNED_SOCKET_H_

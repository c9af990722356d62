#include "tevra/msgbus/direct/direct_listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "tevra/msgbus/direct/destination_socket.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

[[noreturn]] void Fail(const std::string& path) {
  throw osa::Exception("message bus: %s: %s", path.c_str(), strerror(errno));
}

void MakeDirectory(const std::string& path) {
  // It is there as a rule, and create_directories would bring 128 KiB of code into memory.
  struct stat status;
  if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return;
  std::error_code failure;
  const bool made = std::filesystem::create_directories(path, failure);
  if (failure) {
    errno = failure.value();
    Fail(path);
  }
  // Whoever made it may have had a narrow umask; clients of every user must pass.
  if (made && chmod(path.c_str(), 0755) != 0) Fail(path);
}

}  // namespace

DirectListener::DirectListener(const std::string& runtime_dir, const std::string& name, mode_t mode)
    : path_(DestinationSocket::PathOf(runtime_dir, name)) {
  MakeDirectory(runtime_dir);
  TakeLock(DestinationSocket::LockPathOf(runtime_dir, name), name);
  Listen(DestinationSocket::HiddenPathOf(runtime_dir, name), mode);
}

DirectListener::~DirectListener() {
  unlink(path_.c_str());
  // Said aloud, because a copy of the descriptor elsewhere would keep the lock.
  flock(lock_.get(), LOCK_UN);
}

void DirectListener::TakeLock(const std::string& path, const std::string& name) {
  lock_.Reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock_) Fail(path);
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) == 0) return;
  if (errno != EWOULDBLOCK) Fail(path);
  throw osa::Exception("message bus: %s is served by somebody else", name.c_str());
}

void DirectListener::Listen(const std::string& hidden_path, mode_t mode) {
  const sockaddr_un address = DestinationSocket::AddressOf(hidden_path);
  socket_.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket_) Fail(hidden_path);
  unlink(hidden_path.c_str());
  const bool listens =
      bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      chmod(hidden_path.c_str(), mode) == 0 && listen(socket_.get(), SOMAXCONN) == 0 &&
      rename(hidden_path.c_str(), path_.c_str()) == 0;
  if (!listens) Fail(hidden_path);
}

}  // namespace tevra::msgbus

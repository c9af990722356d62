#include "tevra/msgbus/direct/peer_credentials.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "tevra/osa/exception.h"

namespace tevra::msgbus {

Credentials PeerCredentials(int socket) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
    throw osa::Exception("message bus: no peer credentials: %s", strerror(errno));
  }
  Credentials credentials{peer.uid, {peer.gid}, peer.pid};
  std::vector<gid_t> groups(32);
  for (;;) {
    length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) == 0) break;
    // A kernel that cannot tell them leaves the caller with its effective group alone.
    if (errno != ERANGE) return credentials;
    groups.resize(length / sizeof(gid_t));
  }
  groups.resize(length / sizeof(gid_t));
  credentials.groups.insert(credentials.groups.end(), groups.begin(), groups.end());
  return credentials;
}

}  // namespace tevra::msgbus

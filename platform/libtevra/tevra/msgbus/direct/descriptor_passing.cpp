#include "tevra/msgbus/direct/descriptor_passing.h"

#include <sys/socket.h>

#include <cstring>

namespace tevra::msgbus {

ssize_t SendWithDescriptor(int socket, std::string_view bytes, int descriptor) {
  iovec part{const_cast<char*>(bytes.data()), bytes.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  return sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

ssize_t ReceiveWithDescriptor(int socket, std::span<char> space, osa::Descriptor* descriptor) {
  iovec part{space.data(), space.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))];
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t count = recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (count < 0) return count;
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    for (size_t at = 0; CMSG_LEN(at + sizeof(int)) <= header->cmsg_len; at += sizeof(int)) {
      int fd = -1;
      memcpy(&fd, CMSG_DATA(header) + at, sizeof fd);
      descriptor->Reset(fd);
    }
  }
  return count;
}

}  // namespace tevra::msgbus

#include "pelmorad/worker_link.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace pelmorad {

int SendPacket(int link, std::span<const uint8_t> packet, std::span<const int> descriptors) {
  if (packet.size() > kMaxLinkPacket || descriptors.size() > kMaxLinkDescriptors) return EMSGSIZE;
  iovec part{const_cast<uint8_t*>(packet.data()), packet.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxLinkDescriptors)] = {};
  if (!descriptors.empty()) {
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(sizeof(int) * descriptors.size());
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
    std::memcpy(CMSG_DATA(header), descriptors.data(), sizeof(int) * descriptors.size());
  }
  while (true) {
    ssize_t sent = ::sendmsg(link, &message, MSG_NOSIGNAL);
    if (sent >= 0) return 0;
    if (errno != EINTR) return errno;
  }
}

Received ReceivePacket(int link, bool wait) {
  Received received;
  received.data.resize(kMaxLinkPacket);
  iovec part{received.data.data(), received.data.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxLinkDescriptors)];
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  ssize_t got;
  do {
    got = ::recvmsg(link, &message, MSG_CMSG_CLOEXEC | (wait ? 0 : MSG_DONTWAIT));
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    received.error = errno;
    received.data.clear();
    return received;
  }
  received.data.resize(static_cast<std::size_t>(got));
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
       header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
      received.descriptors.emplace_back(fd);
    }
  }
  if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
    received.error = EMSGSIZE;
    received.data.clear();
    received.descriptors.clear();
  } else if (got == 0) {
    received.closed = true;
  }
  return received;
}

}  // namespace pelmorad

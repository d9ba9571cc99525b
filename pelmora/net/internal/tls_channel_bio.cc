// The BIO that carries a TLS session's bytes through a socket layer (see tls_channel_bio.h).
#include "pelmora/net/internal/tls_channel_bio.h"

#include <cerrno>
#include <cstddef>

namespace pelmora::net_internal {
namespace {

// The session's bytes go through the socket layer below (send with MSG_NOSIGNAL), never through
// write(), so a peer that has gone gives an error instead of SIGPIPE.
struct ChannelBio {
  SocketApi* below;
  int fd;
  // Whether the peer has closed its side: OpenSSL asks (BIO_eof) to tell a cut stream from a
  // failed one.
  bool ended = false;
};

int ChannelWrite(BIO* bio, const char* data, size_t size, size_t* written) {
  auto* channel = static_cast<ChannelBio*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  const SocketResult sent = channel->below->Send(channel->fd, data, size, 0);
  if (sent.ok()) {
    *written = static_cast<size_t>(sent.value);
    return 1;
  }
  if (sent.error == EAGAIN || sent.error == EWOULDBLOCK) BIO_set_retry_write(bio);
  return 0;
}

int ChannelRead(BIO* bio, char* data, size_t size, size_t* read) {
  auto* channel = static_cast<ChannelBio*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  const SocketResult got = channel->below->Recv(channel->fd, data, size, 0);
  if (got.ok() && got.value > 0) {
    *read = static_cast<size_t>(got.value);
    return 1;
  }
  if (got.ok()) channel->ended = true;
  if (!got.ok() && (got.error == EAGAIN || got.error == EWOULDBLOCK)) BIO_set_retry_read(bio);
  return 0;
}

long ChannelControl(BIO* bio, int command, long, void*) {
  switch (command) {
    case BIO_CTRL_FLUSH:
      return 1;
    case BIO_CTRL_EOF:
      return static_cast<ChannelBio*>(BIO_get_data(bio))->ended ? 1 : 0;
    default:
      return 0;
  }
}

int ChannelDestroy(BIO* bio) {
  delete static_cast<ChannelBio*>(BIO_get_data(bio));
  BIO_set_data(bio, nullptr);
  return 1;
}

const BIO_METHOD* ChannelMethod() {
  static const BIO_METHOD* const method = [] {
    BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "channel");
    BIO_meth_set_write_ex(made, ChannelWrite);
    BIO_meth_set_read_ex(made, ChannelRead);
    BIO_meth_set_ctrl(made, ChannelControl);
    BIO_meth_set_destroy(made, ChannelDestroy);
    return made;
  }();
  return method;
}

}  // namespace

BIO* NewChannelBio(SocketApi* below, int fd) {
  BIO* bio = BIO_new(ChannelMethod());
  if (bio == nullptr) return nullptr;
  BIO_set_data(bio, new ChannelBio{below, fd});
  BIO_set_init(bio, 1);
  return bio;
}

}  // namespace pelmora::net_internal

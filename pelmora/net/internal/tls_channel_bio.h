// A BIO that carries a TLS session's bytes through a socket layer: OpenSSL reads and writes
// the connection with that layer's Recv and Send (send with MSG_NOSIGNAL), never with read() and
// write(), so a peer that has gone gives an error instead of SIGPIPE, and a layer that fails calls
// on purpose (the tests' fault sockets) reaches the session too.
#ifndef PELMORA_NET_INTERNAL_TLS_CHANNEL_BIO_H_
#define PELMORA_NET_INTERNAL_TLS_CHANNEL_BIO_H_

#include <openssl/bio.h>

#include "pelmora/net/internal/socket_api.h"

namespace pelmora::net_internal {

// A new BIO over descriptor `fd` of `below` (not owned, and it must outlive the BIO), or nullptr
// when OpenSSL cannot make one. EAGAIN from `below` sets the retry flags; a receive of 0 bytes
// marks the end of the stream, which BIO_eof then reports.
BIO* NewChannelBio(SocketApi* below, int fd);

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_TLS_CHANNEL_BIO_H_

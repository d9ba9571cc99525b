// The client's side of the extended command exchange's stream phase (exec_wire.h), driven over
// the channel's socket with poll: the caller's standard input goes out within the service's
// window, standard output and standard error come back within the window this side grants,
// until the exit frame.
//
//   ExecClientStream stream(channel.SocketHandle(), channel.TlsSession(), io, deadline);
//   int32_t failure = stream.Run(exit);  // 0, a socket number, or 8004
#ifndef PELMORA_ADMIN_INTERNAL_EXEC_CLIENT_STREAM_H_
#define PELMORA_ADMIN_INTERNAL_EXEC_CLIENT_STREAM_H_

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "pelmora/admin/exec_wire.h"
#include "pelmora/admin/remote_command.h"

namespace pelmora::net_internal {
class SocketApi;
}  // namespace pelmora::net_internal

namespace pelmora::admin::internal {

// The client's side of the stream phase. Fails with a socket number (10054 when the service
// closes, 10060 when the wait runs out) or 8004 for a malformed frame. Over TLS the bytes go
// through `tls`, and each read drains what the TLS session holds, so that a poll of the
// descriptor never waits for bytes that were already taken from it.
class ExecClientStream {
 public:
  using Clock = std::chrono::steady_clock;

  ExecClientStream(int socket_fd, net_internal::SocketApi* tls, RemoteCommandIo& io,
                   std::optional<Clock::time_point> deadline)
      : socket_fd_(socket_fd), tls_(tls), io_(io), deadline_(deadline), input_(io.input) {}

  // 0 with the exit in `exit`, otherwise the failure's number.
  int32_t Run(ExecExit& exit);

 private:
  int32_t Step();
  int32_t ReadSocket();
  int32_t HandleFrame(const ExecFrame& frame);
  void SendInput();
  void Queue(const std::vector<uint8_t>& bytes);
  int32_t Flush();
  bool WantsInput() const;

  // recv and send on the socket, or through the TLS session: the count, or -1 with errno set.
  ssize_t Receive(uint8_t* buffer, std::size_t size);
  ssize_t Transmit(const uint8_t* data, std::size_t size);

  int socket_fd_;
  net_internal::SocketApi* tls_;  // nullptr on the plain transport
  RemoteCommandIo& io_;
  std::optional<Clock::time_point> deadline_;
  std::string_view input_;
  ExecFrameReader reader_{ExecPeer::kService};
  std::vector<uint8_t> send_;
  std::size_t sent_ = 0;
  int64_t credit_ = 0;
  int64_t consumed_ = 0;
  bool input_ended_ = false;
  std::optional<ExecExit> exit_;
};

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_EXEC_CLIENT_STREAM_H_

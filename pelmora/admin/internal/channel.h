// The administration client's framed channel: one TCP connection (plain or TLS) to the service,
// the login on it, the framing of every message with the session's sequence number, request
// blocks, result and size replies, and the raw byte streams that follow a size message.
//
// The request families (file_requests.h, listing_requests.h, transfers.h, command_requests.h,
// server_file_cache.h) reach the connection only through this interface; the socket and the
// sequence number stay here. The channel also holds what every family shares: the last call's
// error and the event sinks. Failures go to that ErrorState with the socket's number and text
// (10054, 10060, ...) or the framing's (8003, 8004, 8016, 8117), and a line to the log.
//
//   Channel channel(10000);
//   if (channel.Open("srv", 8002) && channel.LogIn(user, password)) {
//     const std::vector<uint8_t> args[] = {EncodeUnicodeArgument("C:\\a.txt")};
//     bool there = channel.SendRequest(5, args) && channel.RecvResult();
//   }
#ifndef PELMORA_ADMIN_INTERNAL_CHANNEL_H_
#define PELMORA_ADMIN_INTERNAL_CHANNEL_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/internal/client_state.h"
#include "pelmora/admin/wire.h"
#include "pelmora/net/tls_client.h"
#include "pelmora/net/winsock.h"

namespace pelmora::net_internal {
class SocketApi;
class TlsSocketApi;
}  // namespace pelmora::net_internal

namespace pelmora::admin::internal {

class RCFSOTestAccess;

class Channel {
 public:
  using Bytes = std::vector<uint8_t>;
  // Receives each piece of a raw stream as it arrives.
  using RawConsumer = std::function<void(std::span<const uint8_t>)>;

  // Not connected: receive and send time-outs of `timeout` ms, sequence counter 2147483640, no
  // error, no sinks.
  explicit Channel(int32_t timeout);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  ErrorState& error() { return error_; }
  EventSinks& events() { return events_; }

  // --- The transport and the session (channel_transport.cc) ---

  // The transport the next Open uses.
  const TlsClientSettings& tls() const { return tls_; }
  void set_tls(TlsClientSettings value) { tls_ = std::move(value); }
  const std::string& PresentedFingerprint() const { return presented_fingerprint_; }
  // Opens the TCP connection to host:port and, over TLS, checks the server's identity. False with
  // the socket's or the TLS check's number and text; the connection then does not stand.
  bool Open(std::string_view host, int32_t port);
  // Counts the channel as connected and sends the login message with the (already encoded)
  // credentials; the login's result reply is the outcome.
  bool LogIn(std::string_view user, std::string_view password);
  // Closes the connection; the sequence counter runs on.
  void Close();
  bool connected() const { return connected_; }
  // The receive time-out in ms, which bounds sends as well; raises 380 for a negative value.
  int32_t timeout() const;
  void set_timeout(int32_t value);
  std::string LocalIP() const { return socket_.LocalIP(); }
  std::string RemoteHost() const { return socket_.RemoteHost(); }
  // "(H)": the socket handle in parentheses, as the client's log lines begin.
  std::string HandlePrefix() const;
  // Records the socket's number `code` with its text.
  void SetSocketError(int32_t code);

  // --- Framed messages and requests (channel.cc) ---

  // Sends `buffer` as it stands (10054 also raises FSODisconnect).
  bool SendPacket(std::span<const uint8_t> buffer);
  // Frames the first `size` bytes of `data` (at most 1489) under the next sequence number and
  // sends the packet; 8004 for a size that does not fit, with the counter unchanged.
  bool SendMessage(int32_t size, std::span<const uint8_t> data);
  // Receives framed packets of `packet_size` bytes until one carries the last sequence number
  // sent: its data in `data`. Skips bad headers and old numbers within the receive time-out.
  bool RecvMessage(int32_t packet_size, Bytes& data, int32_t& sequence);
  // Receives a result reply: true for success; a refusal leaves its code and message.
  bool RecvResult();
  // Receives a size message; 8004 when the message is not one.
  std::optional<int32_t> ReceiveSize();
  // Sends the size message announcing `total` and `block` after it, in one send.
  bool SendAnnouncedBlock(int32_t total, std::span<const uint8_t> block);
  // Sends a request block with the low byte of `code` and the encoded arguments; 8117 when not
  // connected (nothing sent).
  bool SendRequest(int16_t code, std::span<const Bytes> args);
  // The same with one argument in the ANSI code page, one or two Unicode arguments, or a list.
  bool SendRequestAnsi(std::string_view arg, int16_t code);
  bool SendRequestUnicode(std::string_view arg, int16_t code);
  bool SendRequestTwo(std::string_view first, std::string_view second, int16_t code);
  bool SendRequestList(std::span<const std::string> args, int16_t code);

  // --- Raw streams (channel.cc) ---

  // Reads exactly `count` raw bytes into `out`; the socket's number when they do not all come
  // (10054 when the peer closes first), with what came in `out`.
  int32_t ReadRawBytes(int32_t count, Bytes& out);
  // Reads up to `wanted` raw bytes, as ReadRawBytes does for one piece.
  int32_t ReceiveRaw(int32_t wanted, Bytes& out);
  // Reads `count` raw bytes in pieces of at most `piece`, handing each to `consumer`.
  int32_t StreamRawBytes(int64_t count, int32_t piece, const RawConsumer& consumer);

  // The descriptor and, over TLS, the session that an exchange driving the socket itself (the
  // extended command's stream phase) reads and writes; nullptr on the plain transport.
  int SocketHandle() const { return socket_.SocketHandle(); }
  net_internal::SocketApi* TlsSession() const;

 private:
  friend class RCFSOTestAccess;

  bool FrameMessage(int32_t size, std::span<const uint8_t> data, Bytes& packet);
  bool ReceivePacket(int32_t size, Bytes& packet);
  void UseTransport();
  bool StartTls(std::string_view host, int32_t port);

  ErrorState error_;
  EventSinks events_;
  WinSock socket_;
  int32_t sequence_;
  bool connected_ = false;
  TlsClientSettings tls_;
  std::shared_ptr<net_internal::TlsSocketApi> tls_api_;
  std::string presented_fingerprint_;
};

// What every request family starts from: the channel it sends over and the error it shares.
class RequestFamily {
 public:
  explicit RequestFamily(Channel& channel) : channel_(channel), error_(channel.error()) {}

 protected:
  static int16_t Code(RequestCode code) { return static_cast<int16_t>(code); }

  Channel& channel_;
  ErrorState& error_;
};

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_CHANNEL_H_

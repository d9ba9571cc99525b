// SocketClient: a request/reply client for servers that talk in fixed blocks of 512 bytes.
//
// There is no header, sequence number or length field: every message goes out as one 512-byte
// block, and a reply is whatever the next receive of up to 512 bytes delivers. The server greets
// first. The client holds one WinSock and logs through WriteLogFile.
//
//   pelmora::SocketClient client;
//   if (client.Connect("127.0.0.1", 7000)) {            // raises when the connect fails
//     std::string reply;
//     if (client.SendMessageWithReply("STATUS", reply)) { ... }
//     client.Disconnect();
//   }
//
// Errors: Connect raises what WinSock::Connect raises; the other members return false and leave
// the code in ErrCode and its text in ErrDescription (they are not cleared by a success).
// One thread per object.
#ifndef PELMORA_NET_SOCKET_CLIENT_H_
#define PELMORA_NET_SOCKET_CLIENT_H_

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "pelmora/common/date.h"
#include "pelmora/net/winsock.h"
#include "pelmora/platform/export.h"

namespace pelmora {

class PELMORA_API SocketClient {
 public:
  // Size of every block sent, and of the greeting and reply receives.
  static constexpr int32_t kBlockSize = 512;
  // Whole seconds SendMessageWithReply keeps trying to receive a reply.
  static constexpr int32_t kReplySeconds = 10;

  // A client whose WinSock waits at most 10000 ms per receive. Never raises.
  SocketClient();
  // The same over a given socket layer, with the clock the reply loop reads (local time at whole
  // seconds) and the pause it makes after a receive that failed at once; for tests.
  SocketClient(std::shared_ptr<net_internal::SocketApi> api, std::function<Date()> clock,
               std::function<void()> pause);
  SocketClient(const SocketClient&) = delete;
  SocketClient& operator=(const SocketClient&) = delete;

  // Connects to host:port and waits (up to 10 s) for the server's greeting block. True when the
  // greeting, as ANSI text, is not empty: NUL characters count, so a server that closes without a
  // word still gives 512 NULs and true; a server that sends nothing within the 10 s gives false
  // with 10060 (the connection stays open). Raises pelmora::Error as WinSock::Connect does (10061
  // refused, 10049 unknown host...).
  bool Connect(const std::string& host, int32_t port);

  // Logs "Client Disconnected" and closes the connection. Never fails.
  void Disconnect();

  // Copies the first lMsgSize bytes of aMsg into the send block and sends all 512 bytes of the
  // block; bytes past lMsgSize are what earlier messages left there. False with 8004
  // "Invalid Data Size" when lMsgSize is below 0 or above 512 (nothing sent), or with the socket
  // code (10057 not connected, 10054 reset...). Blocks until the block is handed to the socket.
  bool SendMessage(int32_t lMsgSize, std::span<const uint8_t> aMsg);

  // Receives up to lPacketSize bytes: waits until that many came, the peer closed, or 10 s
  // passed. aMsg receives the bytes that came (lPacketSize zero bytes when the peer closed without
  // sending). False with the socket code (10060 time-out...) after logging it, aMsg untouched.
  // Raises 40014 when lPacketSize < 1.
  bool RecvMessage(int32_t lPacketSize, std::vector<uint8_t>& aMsg);

  // Sends sMsg as its UTF-16LE bytes without the last byte (so at most 256 characters; more, or
  // an empty message, fail with 8004), then receives 512 bytes until one receive succeeds, giving
  // up once more than 10 whole seconds have passed since the send. sRetMsg receives the reply's
  // bytes read as ANSI text, one character per byte, NULs included. Blocks up to about 20 s.
  bool SendMessageWithReply(const std::string& sMsg, std::string& sRetMsg);

  // The dotted address of the server (WinSock's RemoteIP), "" before any connection.
  std::string getRemoteIP() const { return socket_.RemoteIP(); }

  int32_t ErrCode() const { return err_code_; }
  const std::string& ErrDescription() const { return err_description_; }
  // Stored for callers; no operation consults it. Initially 2147483640.
  int32_t timeout() const { return timeout_; }
  void SetTimeout(int32_t value) { timeout_ = value; }

 private:
  void SetUp();
  void SetError(int32_t code, std::string description);

  WinSock socket_;
  std::function<Date()> clock_;
  std::function<void()> pause_;
  bool connected_ = false;
  int32_t err_code_ = 0;
  std::string err_description_;
  int32_t timeout_ = 2147483640;
  std::array<uint8_t, kBlockSize> send_block_{};
};

}  // namespace pelmora

#endif  // PELMORA_NET_SOCKET_CLIENT_H_

// The service's end of one client connection: framed messages in and out under the client's
// sequence number, raw byte streams (transfers, listings, command streams), and the idle timer
// that every step re-arms. The socket is a stream socket of any family: the accepted TCP
// connection, or the service's end of the TLS relay.
//
//   SessionChannel channel(std::move(socket), {.idle_deadline = [&] { return deadline; },
//                                              .closing = [&](const std::string& why) { ... }});
//   std::optional<SessionChannel::Message> message = co_await channel.ReadMessage();
//   if (message && !co_await channel.SendResult(kSuccess)) { /* the client is gone */ }
//
// Every step returns false (or nullopt) when the connection is gone: closed, reset, or closed by
// the session's watchdog when the idle timer ran out.
#ifndef PELMORAD_SESSION_CHANNEL_H_
#define PELMORAD_SESSION_CHANNEL_H_

#include <asio/awaitable.hpp>
#include <asio/generic/stream_protocol.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace pelmorad {

class SessionChannel {
 public:
  using Socket = asio::generic::stream_protocol::socket;

  // A framed message from the client.
  struct Message {
    int32_t sequence = 0;
    std::vector<uint8_t> data;
  };
  // What the channel asks of its session.
  struct Hooks {
    // When the idle timer runs out if nothing moves from now on.
    std::function<asio::steady_timer::time_point()> idle_deadline;
    // The client broke the framing and the connection ends: the audit line's text.
    std::function<void(const std::string& reason)> closing;
  };

  SessionChannel(Socket socket, Hooks hooks);
  SessionChannel(const SessionChannel&) = delete;
  SessionChannel& operator=(const SessionChannel&) = delete;

  Socket& socket() { return socket_; }
  bool is_open() const { return socket_.is_open(); }
  // The timer the session's watchdog waits on.
  asio::steady_timer& idle_timer() { return idle_timer_; }
  // True while a write to the client waits (the client may not be reading).
  bool sending() const { return sending_; }
  // The sequence number of the client's last framed message, which every reply carries.
  int32_t sequence() const { return sequence_; }

  // Takes over a connection that another process read up to here: the sequence number of its
  // last message and the bytes it read past that message, which are read before the socket's.
  void Resume(int32_t sequence, std::vector<uint8_t> pending);
  // The bytes read past the last message (for a hand-over); the channel keeps none.
  std::vector<uint8_t> TakePending() { return std::move(pending_); }

  // Re-arms the idle timer from the session's deadline; holds it (never runs out) while a
  // command streams and the client only waits.
  void ArmIdleTimer();
  void HoldIdleTimer();
  // When the idle timer fired before the deadline a later arming set: re-arms it for that
  // deadline and says so (the watchdog then waits again).
  bool TakeUpLaterDeadline();
  // Shuts the connection down and closes it, and cancels the idle timer. Never blocks.
  void Close();

  // Reads exactly `buffer.size()` bytes (the bytes taken over first).
  asio::awaitable<bool> ReadExactly(std::span<uint8_t> buffer);
  // Reads one framed packet. `watch_for_tls` (a plain connection before its login): a first
  // byte that opens a TLS handshake record ends the connection after 3 bytes instead of waiting
  // for a whole packet that such a client never sends.
  asio::awaitable<std::optional<Message>> ReadMessage(bool watch_for_tls = false);
  // Writes `data` as it stands.
  asio::awaitable<bool> SendRaw(std::span<const uint8_t> data);
  // Writes `data` as one framed packet under the client's last sequence number.
  asio::awaitable<bool> SendMessage(std::span<const uint8_t> data);
  // A result reply: success, or failure with `error` and its text.
  asio::awaitable<bool> SendResult(int32_t error);
  // A size message for `data`, then `data` raw.
  asio::awaitable<bool> SendSized(std::span<const uint8_t> data);

 private:
  Socket socket_;
  asio::steady_timer idle_timer_;
  asio::steady_timer::time_point idle_deadline_{};  // taken up when the timer fires
  Hooks hooks_;
  std::vector<uint8_t> pending_;  // bytes taken over with the connection, not yet read
  int32_t sequence_ = 0;
  bool sending_ = false;
};

}  // namespace pelmorad

#endif  // PELMORAD_SESSION_CHANNEL_H_

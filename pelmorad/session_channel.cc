#include "pelmorad/session_channel.h"

#include <algorithm>
#include <asio/read.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <asio/write.hpp>

#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

SessionChannel::SessionChannel(Socket socket, Hooks hooks)
    : socket_(std::move(socket)), idle_timer_(socket_.get_executor()), hooks_(std::move(hooks)) {}

void SessionChannel::Resume(int32_t sequence, std::vector<uint8_t> pending) {
  sequence_ = sequence;
  pending_ = std::move(pending);
}

void SessionChannel::ArmIdleTimer() {
  auto now = asio::steady_timer::clock_type::now();
  idle_deadline_ = hooks_.idle_deadline();
  // A later deadline is taken up when the timer fires: re-arming the timer at every read and
  // write woke the watchdog three times a request.
  if (idle_deadline_ < idle_timer_.expiry() || idle_timer_.expiry() <= now) {
    idle_timer_.expires_at(idle_deadline_);
  }
}

bool SessionChannel::TakeUpLaterDeadline() {
  if (idle_deadline_ <= idle_timer_.expiry()) return false;
  idle_timer_.expires_at(idle_deadline_);
  return true;
}

void SessionChannel::HoldIdleTimer() {
  idle_deadline_ = asio::steady_timer::time_point::max();
  idle_timer_.expires_at(asio::steady_timer::time_point::max());
}

void SessionChannel::Close() {
  asio::error_code ignored;
  socket_.shutdown(Socket::shutdown_both, ignored);
  socket_.close(ignored);
  idle_timer_.cancel();
}

asio::awaitable<bool> SessionChannel::ReadExactly(std::span<uint8_t> buffer) {
  ArmIdleTimer();
  if (!pending_.empty()) {
    std::size_t taken = std::min(pending_.size(), buffer.size());
    std::copy_n(pending_.begin(), taken, buffer.begin());
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(taken));
    buffer = buffer.subspan(taken);
    if (buffer.empty()) co_return true;
  }
  asio::error_code error;
  co_await asio::async_read(socket_, asio::buffer(buffer.data(), buffer.size()),
                            asio::redirect_error(asio::use_awaitable, error));
  co_return !error;
}

asio::awaitable<bool> SessionChannel::SendRaw(std::span<const uint8_t> data) {
  ArmIdleTimer();
  asio::error_code error;
  sending_ = true;
  co_await asio::async_write(socket_, asio::buffer(data.data(), data.size()),
                             asio::redirect_error(asio::use_awaitable, error));
  sending_ = false;
  co_return !error;
}

asio::awaitable<std::optional<SessionChannel::Message>> SessionChannel::ReadMessage(
    bool watch_for_tls) {
  std::vector<uint8_t> packet(pelmora::admin::kPacketSize);
  std::span<uint8_t> rest(packet);
  if (watch_for_tls) {
    // A framed packet starts with 0xFF; a TLS client's first record with 0x16: that client
    // would wait for the handshake's answer while the service waits for the whole packet.
    constexpr std::size_t kFirstBytes = 3;
    constexpr uint8_t kTlsHandshakeRecord = 0x16;
    if (!co_await ReadExactly(rest.first(kFirstBytes))) co_return std::nullopt;
    if (packet[0] == kTlsHandshakeRecord) {
      hooks_.closing("closed: a TLS client on the plain port");
      co_return std::nullopt;
    }
    rest = rest.subspan(kFirstBytes);
  }
  if (!co_await ReadExactly(rest)) co_return std::nullopt;
  int32_t sequence = pelmora::admin::PacketSequenceNumber(packet);
  pelmora::admin::FramedMessage framed = pelmora::admin::ParseFramedPacket(packet, sequence);
  if (framed.fault != pelmora::admin::PacketFault::kNone) {
    hooks_.closing("closed: malformed packet");
    co_return std::nullopt;
  }
  sequence_ = sequence;
  co_return Message{sequence, std::vector<uint8_t>(framed.data.begin(), framed.data.end())};
}

asio::awaitable<bool> SessionChannel::SendMessage(std::span<const uint8_t> data) {
  std::vector<uint8_t> packet = pelmora::admin::BuildFramedPacket(sequence_, data);
  co_return co_await SendRaw(packet);
}

asio::awaitable<bool> SessionChannel::SendResult(int32_t error) {
  std::string text = error == kSuccess ? std::string() : ErrorText(error);
  co_return co_await SendMessage(pelmora::admin::BuildResultReply(error == kSuccess, error, text));
}

asio::awaitable<bool> SessionChannel::SendSized(std::span<const uint8_t> data) {
  auto size = pelmora::admin::BuildSizeMessage(static_cast<int32_t>(data.size()));
  if (!co_await SendMessage(size)) co_return false;
  co_return data.empty() || co_await SendRaw(data);
}

}  // namespace pelmorad

// WinSock's data transfer: GetData (event waits through poll, with a read-ahead buffer where the
// owner allows it) and SendData (whole-array sends that continue short sends).
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "pelmora/common/codepage.h"
#include "pelmora/net/internal/socket_api.h"
#include "pelmora/net/internal/wsa_errors.h"
#include "pelmora/net/winsock.h"

namespace pelmora {
namespace {

using net_internal::SocketResult;
using net_internal::WsaErrorFromErrno;
using Clock = std::chrono::steady_clock;

// How much one receive asks for when filling the read-ahead buffer; requests at least this large
// are received straight into the caller's buffer.
constexpr size_t kReadAheadSize = 64 * 1024;

// The Windows Sockets number for a poll that reported the descriptor itself as invalid.
int32_t PollFailure(int64_t revents) { return (revents & POLLNVAL) != 0 ? sckNotSocket : 0; }

}  // namespace

int32_t WinSock::GetData(WinSockBuffer& Buffer, int32_t Size, SckDataTypeConstants DataType) {
  if ((DataType != sckString && DataType != sckByteArray) || Size < 1) Raise(sckInvalidArg);
  if (RefusedWithoutSocket()) return sckNotConnected;
  std::vector<uint8_t> bytes;
  try {
    bytes.assign(static_cast<size_t>(Size), 0);
  } catch (const std::bad_alloc&) {
    Raise(sckOutOfMemory);
  }
  int32_t received = 0;
  peer_closed_ = false;
  int32_t result = ReceiveInto(bytes.data(), Size, received);
  last_received_ = received;
  // Nothing received keeps all Size zero bytes: the result, not the length, says nothing came.
  if (received > 0 && received < Size) bytes.resize(static_cast<size_t>(received));
  if (DataType == sckByteArray) {
    Buffer = std::move(bytes);
  } else {
    Buffer =
        AnsiToUtf8(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  }
  return result;
}

int32_t WinSock::GetData(std::vector<uint8_t>& Buffer, int32_t Size) {
  WinSockBuffer buffer;
  int32_t result = GetData(buffer, Size, sckByteArray);
  if (auto* bytes = std::get_if<std::vector<uint8_t>>(&buffer)) Buffer = std::move(*bytes);
  return result;
}

int32_t WinSock::GetData(std::string& Buffer, int32_t Size) {
  WinSockBuffer buffer;
  int32_t result = GetData(buffer, Size, sckString);
  if (auto* text = std::get_if<std::string>(&buffer)) Buffer = std::move(*text);
  return result;
}

// Receives until `size` bytes are in `out`, the peer closes, the wait times out or an error
// comes; `received` counts the bytes delivered. Bytes read ahead earlier are delivered first.
// Bytes the system already holds are taken without a wait; the socket is waited on only when a
// receive would block, or after a receive that drained the system's buffer.
int32_t WinSock::ReceiveInto(uint8_t* out, int32_t size, int32_t& received) {
  size_t wanted = static_cast<size_t>(size);
  received = static_cast<int32_t>(TakeReadAhead(out, wanted));
  bool drained = false;  // whether the last receive left the system's buffer empty
  while (static_cast<size_t>(received) < wanted) {
    const bool waited = drained;
    if (waited) {
      if (int32_t failed = WaitReadable(); failed != 0) return last_error_ = failed;
    }
    const size_t missing = wanted - static_cast<size_t>(received);
    SocketResult got = ReceiveSome(out + received, missing, drained);
    if (!got.ok()) {
      last_error_ = WsaErrorFromErrno(got.error);
      if (last_error_ != sckWouldBlock) return last_error_;
      // Readiness without data (a spurious wake) ends the call as a success, as designed.
      if (waited) return 0;
      drained = true;
      continue;
    }
    if (got.value == 0) {  // the peer closed the connection
      peer_closed_ = true;
      break;
    }
    received += static_cast<int32_t>(got.value);
  }
  last_error_ = 0;
  return 0;
}

// One receive without waiting, straight into `out` for large requests or when reading ahead is
// off, otherwise through the read-ahead buffer; the result counts the bytes delivered to `out`.
// `drained` tells whether the receive took less than it asked for, so that the system holds
// nothing more for now.
SocketResult WinSock::ReceiveSome(uint8_t* out, size_t missing, bool& drained) {
  if (!read_ahead_enabled_ || missing >= kReadAheadSize) {
    SocketResult got = api_->Recv(handle_, out, missing, MSG_DONTWAIT);
    drained = got.ok() && static_cast<size_t>(got.value) < missing;
    return got;
  }
  SocketResult got = FillReadAhead();
  drained = got.ok() && read_end_ < kReadAheadSize;
  if (got.ok()) got.value = static_cast<int64_t>(TakeReadAhead(out, missing));
  return got;
}

SocketResult WinSock::FillReadAhead() {
  if (!read_ahead_) read_ahead_ = std::make_unique_for_overwrite<uint8_t[]>(kReadAheadSize);
  SocketResult got = api_->Recv(handle_, read_ahead_.get(), kReadAheadSize, MSG_DONTWAIT);
  read_pos_ = 0;
  read_end_ = got.ok() ? static_cast<size_t>(got.value) : 0;
  return got;
}

size_t WinSock::TakeReadAhead(uint8_t* out, size_t wanted) {
  size_t taken = std::min(wanted, read_end_ - read_pos_);
  if (taken == 0) return 0;
  std::memcpy(out, read_ahead_.get() + read_pos_, taken);
  read_pos_ += taken;
  return taken;
}

// Waits until the socket is readable or closed: 0, 10060 after ReceiveTimeout ms (each wait
// starts afresh), or the socket number of a failed wait.
int32_t WinSock::WaitReadable() { return WaitReady(POLLIN, receive_timeout_); }

// Waits for `events` on the socket: 0, 10060 after `timeout_ms` (without limit below 1), or the
// socket number of a failed wait.
int32_t WinSock::WaitReady(short events, int32_t timeout_ms) {
  const bool limited = timeout_ms >= 1;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    int wait_ms = -1;
    if (limited) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      wait_ms = static_cast<int>(std::max<int64_t>(left.count(), 0));
    }
    SocketResult polled = api_->Poll(handle_, events, wait_ms);
    if (polled.error == EINTR) continue;
    if (!polled.ok()) return WsaErrorFromErrno(polled.error);
    if (polled.value == 0) return sckTimedout;
    return PollFailure(polled.value);
  }
}

int32_t WinSock::SendData(std::span<const uint8_t> Buffer) {
  if (RefusedWithoutSocket()) return sckNotConnected;
  last_error_ = Buffer.empty() ? 0 : SendAll(Buffer);
  return last_error_;
}

// Sends every byte: a short send, or a socket that would block, waits until the socket can take
// more (poll for POLLOUT, at most the send time-out, without limit when it is 0) and continues
// where it stopped. A wait that runs out gives 10060.
int32_t WinSock::SendAll(std::span<const uint8_t> bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    // With a send time-out, a blocking socket must not wait inside the send itself.
    const int flags = send_timeout_ > 0 ? MSG_DONTWAIT : 0;
    SocketResult done = api_->Send(handle_, bytes.data() + sent, bytes.size() - sent, flags);
    if (done.ok()) sent += static_cast<size_t>(done.value);
    if (sent == bytes.size()) break;
    if (!done.ok() && done.error != EAGAIN && done.error != EWOULDBLOCK) {
      return WsaErrorFromErrno(done.error);
    }
    if (int32_t failed = WaitReady(POLLOUT, send_timeout_); failed != 0) return failed;
  }
  return 0;
}

}  // namespace pelmora

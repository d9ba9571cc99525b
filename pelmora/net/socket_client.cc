#include "pelmora/net/socket_client.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string_view>
#include <thread>
#include <utility>

#include "pelmora/common/codepage.h"
#include "pelmora/common/error_numbers.h"
#include "pelmora/common/log.h"
#include "pelmora/common/system.h"
#include "pelmora/net/internal/socket_api.h"

namespace pelmora {
namespace {

constexpr char kModule[] = "SocketClient";
constexpr int32_t kReceiveTimeoutMs = 10000;
// Where the platform let pending window messages run between two receive attempts, a receive
// that failed at once (a dead connection) is followed by this pause instead of a busy loop.
constexpr std::chrono::milliseconds kRetryPause{100};

// Whole seconds from `start` to `now`, both local times.
int64_t SecondsBetween(const Date& start, const Date& now) {
  return std::llround((now.Serial() - start.Serial()) * 86400.0);
}

std::string BytesAsAnsiText(const std::vector<uint8_t>& bytes) {
  return AnsiToUtf8(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

}  // namespace

SocketClient::SocketClient()
    : clock_(&CurrentLocalTime), pause_([] { std::this_thread::sleep_for(kRetryPause); }) {
  SetUp();
}

SocketClient::SocketClient(std::shared_ptr<net_internal::SocketApi> api,
                           std::function<Date()> clock, std::function<void()> pause)
    : socket_(std::move(api)), clock_(std::move(clock)), pause_(std::move(pause)) {
  SetUp();
}

void SocketClient::SetUp() {
  socket_.SetReceiveTimeout(kReceiveTimeoutMs);
  // Asked before any socket exists, so refused with 10057 and without effect; the order is kept
  // on purpose (the connection is made without keep-alive).
  socket_.SetSocketOption(sckSOL_SOCKET, sckSO_KEEPALIVE, -1);
}

void SocketClient::SetError(int32_t code, std::string description) {
  err_code_ = code;
  err_description_ = std::move(description);
}

bool SocketClient::Connect(const std::string& host, int32_t port) {
  socket_.SetRemoteHost(host);
  socket_.SetRemotePort(port);
  socket_.Connect();
  std::vector<uint8_t> greeting;
  RecvMessage(kBlockSize, greeting);
  connected_ = !BytesAsAnsiText(greeting).empty();
  return connected_;
}

void SocketClient::Disconnect() {
  WriteLogFile(-1, "Client Disconnected", kModule, "Disconnect", kLogEntryInformation);
  socket_.Disconnect();
  connected_ = false;
}

bool SocketClient::SendMessage(int32_t lMsgSize, std::span<const uint8_t> aMsg) {
  if (lMsgSize < 0 || lMsgSize > kBlockSize) {
    SetError(errors::kInvalidDataSize, "Invalid Data Size");
    return false;
  }
  // A caller's array shorter than lMsgSize gives only the bytes it has.
  size_t copied = std::min(static_cast<size_t>(lMsgSize), aMsg.size());
  std::copy_n(aMsg.begin(), copied, send_block_.begin());
  int32_t e = socket_.SendData(send_block_);
  if (e == sckSuccess) return true;
  SetError(e, socket_.GetErrorDescription(e));
  WriteLogFile(e, "**Send Packet fail err = " + std::to_string(e), "RSFSO", "SendPacket",
               kLogEntryInformation);
  return false;
}

bool SocketClient::RecvMessage(int32_t lPacketSize, std::vector<uint8_t>& aMsg) {
  std::vector<uint8_t> received;
  int32_t e = socket_.GetData(received, lPacketSize);
  if (e == sckSuccess) {
    aMsg = std::move(received);
    return true;
  }
  SetError(e, socket_.GetErrorDescription(e));
  WriteLogFile(e, err_description_, kModule, "RecvMessage", kLogEntryError);
  return false;
}

bool SocketClient::SendMessageWithReply(const std::string& sMsg, std::string& sRetMsg) {
  std::string wide = Utf8ToUtf16Le(sMsg);
  // The size is the array's upper bound: the high byte of the last character stays behind.
  int32_t size = static_cast<int32_t>(std::min<size_t>(wide.size(), INT32_MAX)) - 1;
  if (!SendMessage(size, std::span(reinterpret_cast<const uint8_t*>(wide.data()), wide.size()))) {
    return false;
  }
  const Date start = clock_();
  while (SecondsBetween(start, clock_()) <= kReplySeconds) {
    std::vector<uint8_t> reply;
    if (RecvMessage(kBlockSize, reply)) {
      sRetMsg = BytesAsAnsiText(reply);
      return true;
    }
    if (err_code_ != sckTimedout) pause_();
  }
  return false;
}

}  // namespace pelmora

// The extended command's stream phase on the client side.
#include "pelmora/admin/internal/exec_client_stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "pelmora/common/error_numbers.h"
#include "pelmora/net/internal/socket_api.h"

namespace pelmora::admin::internal {
namespace {

constexpr std::size_t kPiece = 65536;
constexpr std::size_t kSendQueueLimit = 256 * 1024;

}  // namespace

void ExecClientStream::Queue(const std::vector<uint8_t>& bytes) {
  send_.insert(send_.end(), bytes.begin(), bytes.end());
}

bool ExecClientStream::WantsInput() const {
  return !input_ended_ && !exit_ && credit_ > 0 && send_.size() - sent_ < kSendQueueLimit;
}

int32_t ExecClientStream::Run(ExecExit& exit) {
  Queue(BuildExecGrant(ExecFrameKind::kGrant, io_.window));
  while (!exit_ || sent_ < send_.size()) {
    if (int32_t failure = Step()) return failure;
  }
  exit = *exit_;
  return 0;
}

int32_t ExecClientStream::Step() {
  if (io_.input_fd < 0 && WantsInput()) SendInput();
  pollfd fds[2] = {
      {socket_fd_, static_cast<short>((exit_ ? 0 : POLLIN) | (sent_ < send_.size() ? POLLOUT : 0)),
       0},
      {io_.input_fd >= 0 && WantsInput() ? io_.input_fd : -1, POLLIN, 0}};
  int wait = -1;
  if (deadline_) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline_ - Clock::now()).count();
    if (left <= 0) return 10060;
    wait = static_cast<int>(std::min<int64_t>(left, 60000));
  }
  if (::poll(fds, 2, wait) < 0 && errno != EINTR) return 10054;
  if (fds[0].revents & POLLIN) {
    if (int32_t failure = ReadSocket()) return failure;
  } else if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) {
    return 10054;
  }
  if (fds[1].revents) SendInput();
  return (fds[0].revents & POLLOUT) ? Flush() : 0;
}

ssize_t ExecClientStream::Receive(uint8_t* buffer, std::size_t size) {
  if (tls_ == nullptr) return ::recv(socket_fd_, buffer, size, MSG_DONTWAIT);
  net_internal::SocketResult result = tls_->Recv(socket_fd_, buffer, size, MSG_DONTWAIT);
  errno = result.error;
  return result.ok() ? static_cast<ssize_t>(result.value) : -1;
}

ssize_t ExecClientStream::Transmit(const uint8_t* data, std::size_t size) {
  if (tls_ == nullptr) return ::send(socket_fd_, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
  net_internal::SocketResult result = tls_->Send(socket_fd_, data, size, MSG_DONTWAIT);
  errno = result.error;
  return result.ok() ? static_cast<ssize_t>(result.value) : -1;
}

int32_t ExecClientStream::ReadSocket() {
  uint8_t buffer[kPiece];
  // One read on the plain transport; over TLS until the session needs more bytes.
  for (bool more = true; more;) {
    ssize_t got = Receive(buffer, sizeof(buffer));
    if (got < 0) return errno == EAGAIN || errno == EINTR ? 0 : 10054;
    if (got == 0) return 10054;
    reader_.Append(std::span<const uint8_t>(buffer, static_cast<std::size_t>(got)));
    while (std::optional<ExecFrame> frame = reader_.Next()) {
      if (int32_t failure = HandleFrame(*frame)) return failure;
    }
    if (reader_.Broken()) return errors::kInvalidDataSize;
    more = tls_ != nullptr && !exit_;
  }
  return 0;
}

int32_t ExecClientStream::HandleFrame(const ExecFrame& frame) {
  switch (frame.kind) {
    case ExecFrameKind::kOutput:
    case ExecFrameKind::kError: {
      auto& sink = frame.kind == ExecFrameKind::kOutput ? io_.output : io_.error;
      if (sink) sink(frame.payload);
      consumed_ += static_cast<int64_t>(frame.payload.size());
      if (consumed_ * 4 >= io_.window) {
        Queue(BuildExecGrant(ExecFrameKind::kGrant, static_cast<int32_t>(consumed_)));
        consumed_ = 0;
      }
      return 0;
    }
    case ExecFrameKind::kInputGrant:
      credit_ += ParseExecGrant(frame.payload);
      return 0;
    case ExecFrameKind::kExit:
      exit_ = ParseExecExit(frame.payload);
      if (!exit_) return errors::kInvalidDataSize;
      Queue(BuildExecFrame(ExecFrameKind::kDone, {}));
      return 0;
    default:
      return errors::kInvalidDataSize;
  }
}

// Sends what input the service's window allows: from the descriptor (one read) or the text.
void ExecClientStream::SendInput() {
  uint8_t buffer[kPiece];
  auto room = static_cast<std::size_t>(std::min<int64_t>(credit_, kPiece));
  std::span<const uint8_t> piece;
  if (io_.input_fd >= 0) {
    ssize_t got = ::read(io_.input_fd, buffer, room);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    piece = std::span<const uint8_t>(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
  } else {
    std::string_view part = input_.substr(0, room);
    piece = std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(part.data()), part.size());
    input_.remove_prefix(part.size());
  }
  if (piece.empty()) {
    Queue(BuildExecFrame(ExecFrameKind::kInputEnd, {}));
    input_ended_ = true;
    return;
  }
  credit_ -= static_cast<int64_t>(piece.size());
  Queue(BuildExecFrame(ExecFrameKind::kInput, piece));
}

int32_t ExecClientStream::Flush() {
  while (sent_ < send_.size()) {
    ssize_t n = Transmit(send_.data() + sent_, send_.size() - sent_);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno == EAGAIN ? 0 : 10054;
    sent_ += static_cast<std::size_t>(n);
  }
  send_.clear();
  sent_ = 0;
  return 0;
}

}  // namespace pelmora::admin::internal

// RCFSO's extended command exchange: the hello request that learns whether the service speaks
// it, and RunCommand, which drives the stream phase over the session's socket with poll: the
// caller's standard input goes out within the service's window, standard output and standard
// error come back within the window this side grants, until the exit frame.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>

#include "pelmora/admin/exec_wire.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/net/internal/tls_socket_api.h"
#include "pelmora/common/error_numbers.h"

namespace pelmora::admin {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kPiece = 65536;
constexpr std::size_t kSendQueueLimit = 256 * 1024;

// The client's side of the stream phase. Fails with a socket number (10054 when the service
// closes, 10060 when the wait runs out) or 8004 for a malformed frame. Over TLS the bytes go
// through `tls`, and each read drains what the TLS session holds, so that a poll of the
// descriptor never waits for bytes that were already taken from it.
class ExecClientStream {
 public:
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
  void Queue(const std::vector<uint8_t>& bytes) {
    send_.insert(send_.end(), bytes.begin(), bytes.end());
  }
  int32_t Flush();
  bool WantsInput() const {
    return !input_ended_ && !exit_ && credit_ > 0 && send_.size() - sent_ < kSendQueueLimit;
  }

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
  pollfd fds[2] = {{socket_fd_, static_cast<short>((exit_ ? 0 : POLLIN) |
                                                   (sent_ < send_.size() ? POLLOUT : 0)), 0},
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

}  // namespace

int32_t RCFSO::ExtendedCommandVersion() {
  ClearError();
  if (!SendRequestBlock(kExecHelloCode, ExecHelloArguments(kExecVersion))) return 0;
  if (!RecvResult()) {
    ClearError();  // a service without the extension refuses the unknown request
    return 0;
  }
  int32_t version = std::max(ErrCode(), 0);
  ClearError();
  return std::min(version, kExecVersion);
}

bool RCFSO::RunCommand(const RemoteCommand& command, RemoteCommandIo& io, ExecExit& exit) {
  ClearError();
  if (command.arguments.empty() &&
      command.command_line.find_first_not_of(' ') == std::string::npos) {
    SetError(errors::kEmptyArgument, "Empty command");
    return false;
  }
  if (!SendRequestBlock(kExecRunCode, ExecRequestArguments(command))) return false;
  if (!RecvResult()) return false;
  std::optional<Clock::time_point> deadline;
  if (command.timeout > 0 && timeout() > 0) {
    deadline = Clock::now() + std::chrono::milliseconds(int64_t{command.timeout} + timeout());
  }
  ExecClientStream stream(socket_.SocketHandle(), tls_api_.get(), io, deadline);
  int32_t failure = stream.Run(exit);
  if (failure == errors::kInvalidDataSize) SetError(errors::kInvalidDataSize, "Invalid Data Size");
  if (failure != 0 && failure != errors::kInvalidDataSize) SetSocketError(failure);
  return failure == 0;
}

}  // namespace pelmora::admin

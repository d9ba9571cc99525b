#include "pelmorad/command_tree.h"
#include "pelmorad/exec_stream.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <deque>
#include <optional>
#include <vector>

#include "pelmora/platform/file_io.h"

namespace pelmorad {

using pelmora::admin::ExecExit;
using pelmora::admin::ExecFrame;
using pelmora::admin::ExecFrameKind;
using pelmora::admin::ExecOutcome;
using Clock = std::chrono::steady_clock;

namespace {

// Input bytes the service accepts ahead of the command (its window for the client).
constexpr int32_t kInputWindow = 256 * 1024;
// Written input is granted back in pieces of at least this size (or when the queue runs dry).
constexpr int32_t kGrantStep = 32 * 1024;
// Output is read only while less than this waits to be sent.
constexpr std::size_t kSendQueueLimit = 128 * 1024;
constexpr std::size_t kReadPiece = 65536;

class ExecStream {
 public:
  ExecStream(int socket_fd, pelmora::ChildProcess& child, const ExecStreamLimits& limits)
      : socket_fd_(socket_fd), child_(child), limits_(limits) {
    output_fd_ = child.output_fd();
    error_fd_ = child.error_fd();
    if (limits.timeout_ms > 0) {
      deadline_ = Clock::now() + std::chrono::milliseconds(limits.timeout_ms);
    }
  }

  ExecStreamResult Run();

 private:
  enum Slot { kSocket, kOutput, kError, kInput, kExitWatch, kSlots };

  bool Step();
  int PollTimeout() const;
  void CheckClocks();
  bool ReadSocket();
  bool HandleFrame(const ExecFrame& frame);
  bool TakeInput(const ExecFrame& frame);
  void WriteInput();
  void DropInput();
  void ReadOutput(int& fd, ExecFrameKind kind);
  bool FlushSocket();
  void Queue(const std::vector<uint8_t>& bytes);
  void GrantInput(int32_t bytes, bool now);
  void NoteExit();
  void Kill();
  bool Finished() const { return exit_queued_ && send_.empty() && done_; }

  int socket_fd_;
  pelmora::ChildProcess& child_;
  ExecStreamLimits limits_;
  int output_fd_ = -1;
  int error_fd_ = -1;
  pelmora::admin::ExecFrameReader reader_{pelmora::admin::ExecPeer::kClient};
  std::deque<uint8_t> send_;
  std::deque<uint8_t> input_;
  int64_t output_window_ = 0;
  int64_t input_credit_ = 0;  // input bytes the client may still send
  int32_t input_to_grant_ = 0;
  bool started_ = false;
  bool input_ended_ = false;
  bool done_ = false;
  bool timed_out_ = false;
  bool client_gone_ = false;
  bool exit_queued_ = false;
  std::optional<pelmora::ChildExit> exit_;
  std::optional<Clock::time_point> deadline_;
  std::optional<Clock::time_point> drain_until_;
  // Once the command has exited before the client's first frame: how long that frame is awaited.
  std::optional<Clock::time_point> start_until_;
  std::optional<Clock::time_point> finish_until_;
};

ExecStreamResult ExecStream::Run() {
  while (!Finished()) {
    if (!Step()) {
      Kill();
      ExecStreamResult result;
      result.client_gone = true;
      pelmora::ChildExit exit = child_.Wait();
      result.exit = {exit.signalled ? ExecOutcome::kSignalled : ExecOutcome::kExited, exit.code};
      return result;
    }
  }
  ExecStreamResult result;
  result.in_step = true;
  result.exit = {timed_out_    ? ExecOutcome::kTimedOut
                 : exit_->signalled ? ExecOutcome::kSignalled
                                    : ExecOutcome::kExited,
                 exit_->code};
  return result;
}

// One wait and whatever it made ready; false when the client has gone or broken the protocol.
bool ExecStream::Step() {
  pollfd fds[kSlots] = {};
  bool wants_output = started_ && output_window_ > 0 && send_.size() < kSendQueueLimit;
  fds[kSocket] = {socket_fd_, static_cast<short>((done_ ? 0 : POLLIN) |
                                                 (send_.empty() ? 0 : POLLOUT)), 0};
  fds[kOutput] = {wants_output ? output_fd_ : -1, POLLIN, 0};
  fds[kError] = {wants_output ? error_fd_ : -1, POLLIN, 0};
  fds[kInput] = {input_.empty() ? -1 : child_.input_fd(), POLLOUT, 0};
  fds[kExitWatch] = {exit_ ? -1 : child_.exit_fd(), POLLIN, 0};
  int ready = ::poll(fds, kSlots, PollTimeout());
  if (ready < 0 && errno != EINTR) return false;
  // Frames that came before a close are read first: a client may send done and go at once.
  if (fds[kSocket].revents & POLLIN) {
    if (!ReadSocket()) return false;
  } else if (fds[kSocket].revents & (POLLERR | POLLHUP | POLLNVAL)) {
    return Finished();
  }
  if ((fds[kSocket].revents & POLLOUT) && !FlushSocket()) return false;
  if (fds[kInput].revents) WriteInput();
  if (fds[kOutput].revents) ReadOutput(output_fd_, ExecFrameKind::kOutput);
  if (fds[kError].revents) ReadOutput(error_fd_, ExecFrameKind::kError);
  if (fds[kExitWatch].revents) NoteExit();
  CheckClocks();
  return !finish_until_ || Clock::now() < *finish_until_ || Finished();
}

int ExecStream::PollTimeout() const {
  std::optional<Clock::time_point> next;
  // Output and the exit wait for the client's first frame, so the drain clock runs only after it.
  for (const auto& clock : {exit_ ? std::nullopt : deadline_, started_ ? drain_until_ : start_until_,
                            finish_until_}) {
    if (clock && (!next || *clock < *next)) next = clock;
  }
  if (!next) return -1;
  auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, 60000));
}

void ExecStream::CheckClocks() {
  Clock::time_point now = Clock::now();
  if (!exit_ && deadline_ && now >= *deadline_ && !timed_out_) {
    timed_out_ = true;
    Kill();
  }
  // Nothing goes to the client before its first frame; a client that never sends one gets the
  // exit frame after the finish time and is then given up.
  bool drained = output_fd_ < 0 && error_fd_ < 0;
  bool may_end = started_ ? drained || (drain_until_ && now >= *drain_until_)
                          : start_until_ && now >= *start_until_;
  if (exit_ && !exit_queued_ && may_end) {
    ExecExit exit{timed_out_ ? ExecOutcome::kTimedOut
                  : exit_->signalled ? ExecOutcome::kSignalled
                                     : ExecOutcome::kExited,
                  exit_->code};
    Queue(pelmora::admin::BuildExecExit(exit));
    exit_queued_ = true;
    drain_until_.reset();
    finish_until_ = now + std::chrono::milliseconds(limits_.finish_ms);
  }
}

// Reads exactly what completes the next frame, so nothing past the done frame is taken.
bool ExecStream::ReadSocket() {
  uint8_t buffer[kReadPiece];
  std::size_t wanted = std::min(reader_.Wanted(), sizeof(buffer));
  ssize_t got = ::recv(socket_fd_, buffer, wanted, MSG_DONTWAIT);
  if (got < 0) return errno == EAGAIN || errno == EINTR;
  if (got == 0) return false;
  reader_.Append(std::span<const uint8_t>(buffer, static_cast<std::size_t>(got)));
  while (std::optional<ExecFrame> frame = reader_.Next()) {
    if (!HandleFrame(*frame)) return false;
  }
  return !reader_.Broken();
}

bool ExecStream::HandleFrame(const ExecFrame& frame) {
  if (!started_) {
    started_ = true;
    input_credit_ = kInputWindow;
    Queue(pelmora::admin::BuildExecGrant(ExecFrameKind::kInputGrant, kInputWindow));
    // A command that exited before this frame still has its output forwarded in full.
    if (exit_) drain_until_ = Clock::now() + std::chrono::milliseconds(limits_.drain_ms);
  }
  switch (frame.kind) {
    case ExecFrameKind::kGrant:
      output_window_ = std::min<int64_t>(
          output_window_ + pelmora::admin::ParseExecGrant(frame.payload), int64_t{1} << 40);
      return true;
    case ExecFrameKind::kInput:
      return TakeInput(frame);
    case ExecFrameKind::kInputEnd:
      if (input_ended_) return false;
      input_ended_ = true;
      if (input_.empty()) child_.CloseInput();
      return true;
    case ExecFrameKind::kDone:
      done_ = true;
      if (!exit_) Kill();  // a cancel
      return true;
    default:
      return false;
  }
}

bool ExecStream::TakeInput(const ExecFrame& frame) {
  auto size = static_cast<int64_t>(frame.payload.size());
  if (input_ended_ || done_ || size > input_credit_) return false;
  input_credit_ -= size;
  if (child_.input_fd() < 0) {
    GrantInput(static_cast<int32_t>(size), true);  // nobody reads it: take it and go on
    return true;
  }
  input_.insert(input_.end(), frame.payload.begin(), frame.payload.end());
  return true;
}

void ExecStream::WriteInput() {
  while (!input_.empty() && child_.input_fd() >= 0) {
    uint8_t piece[kReadPiece];
    std::size_t size = std::min(input_.size(), sizeof(piece));
    std::copy_n(input_.begin(), size, piece);
    ssize_t written = pelmora::platform::Write(child_.input_fd(), piece, size);
    if (written < 0 && errno == EAGAIN) break;
    if (written <= 0) {
      DropInput();  // the command closed its input
      return;
    }
    input_.erase(input_.begin(), input_.begin() + written);
    GrantInput(static_cast<int32_t>(written), input_.empty());
  }
  if (input_.empty() && input_ended_) child_.CloseInput();
}

void ExecStream::DropInput() {
  GrantInput(static_cast<int32_t>(input_.size()), true);
  input_.clear();
  child_.CloseInput();
}

void ExecStream::GrantInput(int32_t bytes, bool now) {
  input_to_grant_ += bytes;
  // Nothing may follow the exit frame: input that comes after it is dropped without a grant.
  if (input_to_grant_ == 0 || (!now && input_to_grant_ < kGrantStep) || exit_queued_) return;
  input_credit_ += input_to_grant_;
  Queue(pelmora::admin::BuildExecGrant(ExecFrameKind::kInputGrant, input_to_grant_));
  input_to_grant_ = 0;
}

void ExecStream::ReadOutput(int& fd, ExecFrameKind kind) {
  uint8_t buffer[kReadPiece];
  std::size_t wanted = static_cast<std::size_t>(
      std::min<int64_t>(output_window_, static_cast<int64_t>(sizeof(buffer))));
  ssize_t got = pelmora::platform::Read(fd, buffer, wanted);
  if (got < 0 && errno == EAGAIN) return;
  if (got <= 0) {
    fd = -1;  // end of file; the descriptor itself belongs to the child object
    return;
  }
  output_window_ -= got;
  Queue(pelmora::admin::BuildExecFrame(kind, std::span<const uint8_t>(buffer, got)));
  if (drain_until_) drain_until_ = Clock::now() + std::chrono::milliseconds(limits_.drain_ms);
}

bool ExecStream::FlushSocket() {
  while (!send_.empty()) {
    uint8_t piece[kReadPiece];
    std::size_t size = std::min(send_.size(), sizeof(piece));
    std::copy_n(send_.begin(), size, piece);
    ssize_t sent = ::send(socket_fd_, piece, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return errno == EAGAIN;
    send_.erase(send_.begin(), send_.begin() + sent);
  }
  return true;
}

void ExecStream::Queue(const std::vector<uint8_t>& bytes) {
  send_.insert(send_.end(), bytes.begin(), bytes.end());
}

void ExecStream::NoteExit() {
  exit_ = child_.TryReap();
  if (!exit_) return;
  if (!input_.empty()) DropInput();
  child_.CloseInput();
  drain_until_ = Clock::now() + std::chrono::milliseconds(limits_.drain_ms);
  start_until_ = Clock::now() + std::chrono::milliseconds(limits_.finish_ms);
}

void ExecStream::Kill() {
  if (!exit_) KillCommandTree(child_);
}

}  // namespace

ExecStreamResult RunExecStream(int socket_fd, pelmora::ChildProcess& child,
                               const ExecStreamLimits& limits) {
  ExecStream stream(socket_fd, child, limits);
  return stream.Run();
}

}  // namespace pelmorad

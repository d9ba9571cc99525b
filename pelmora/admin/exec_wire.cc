#include "pelmora/admin/exec_wire.h"

#include <algorithm>

#include "pelmora/admin/internal/byte_order.h"

namespace pelmora::admin {

using internal::AppendInt32;
using internal::GetInt32;

namespace {

bool KnownKind(ExecPeer sender, std::uint8_t kind) {
  if (sender == ExecPeer::kClient) return kind >= 0x01 && kind <= 0x04;
  return kind >= 0x11 && kind <= 0x14;
}

// Whether `length` is the payload length a frame of `kind` may carry.
bool LengthFits(ExecFrameKind kind, std::int32_t length) {
  switch (kind) {
    case ExecFrameKind::kGrant:
    case ExecFrameKind::kInputGrant:
      return length == 4;
    case ExecFrameKind::kExit:
      return length == 12;
    case ExecFrameKind::kInputEnd:
    case ExecFrameKind::kDone:
      return length == 0;
    default:
      return length >= 1 && length <= kExecMaxPayload;
  }
}

std::vector<std::uint8_t> Int32Argument(std::int32_t value) {
  std::vector<std::uint8_t> arg;
  AppendInt32(arg, value);
  return arg;
}

std::optional<std::int32_t> Int32Of(std::span<const std::uint8_t> arg) {
  if (arg.size() != 4) return std::nullopt;
  return GetInt32(arg, 0);
}

// Splits an argument vector: each entry ends with one 0 byte.
std::optional<std::vector<std::string>> SplitArguments(std::span<const std::uint8_t> bytes) {
  if (bytes.empty() || bytes.back() != 0) return std::nullopt;
  std::vector<std::string> arguments;
  auto begin = bytes.begin();
  while (begin != bytes.end()) {
    auto end = std::find(begin, bytes.end(), std::uint8_t{0});
    arguments.emplace_back(begin, end);
    begin = end + 1;
  }
  if (arguments.front().empty()) return std::nullopt;
  return arguments;
}

}  // namespace

int ExecExit::ShellStatus() const {
  if (outcome == ExecOutcome::kExited) return code & 0xFF;
  return 128 + code;
}

void ExecFrameReader::Append(std::span<const std::uint8_t> bytes) {
  if (broken_) return;
  if (start_ > 0 && start_ == buffer_.size()) {
    buffer_.clear();
    start_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

std::size_t ExecFrameReader::Wanted() const {
  if (Pending() < kExecFrameHeaderSize) return kExecFrameHeaderSize - Pending();
  std::int32_t length = GetInt32(std::span<const std::uint8_t>(buffer_).subspan(start_ + 4), 0);
  std::size_t whole = kExecFrameHeaderSize + static_cast<std::size_t>(
                                                 std::clamp(length, 0, kExecMaxPayload));
  return whole > Pending() ? whole - Pending() : 0;
}

std::optional<ExecFrame> ExecFrameReader::Next() {
  if (broken_ || Pending() < kExecFrameHeaderSize) return std::nullopt;
  std::span<const std::uint8_t> header(buffer_.data() + start_, kExecFrameHeaderSize);
  std::int32_t length = GetInt32(header, 4);
  auto kind = static_cast<ExecFrameKind>(header[0]);
  if (header[1] != 0 || header[2] != 0 || header[3] != 0 || !KnownKind(sender_, header[0]) ||
      !LengthFits(kind, length)) {
    broken_ = true;
    buffer_.clear();
    start_ = 0;
    return std::nullopt;
  }
  std::size_t whole = kExecFrameHeaderSize + static_cast<std::size_t>(length);
  if (Pending() < whole) return std::nullopt;
  ExecFrame frame;
  frame.kind = kind;
  auto payload = buffer_.begin() + static_cast<std::ptrdiff_t>(start_ + kExecFrameHeaderSize);
  frame.payload.assign(payload, payload + length);
  start_ += whole;
  if (start_ == buffer_.size()) {
    buffer_.clear();
    start_ = 0;
  } else if (start_ > static_cast<std::size_t>(kExecMaxPayload)) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
    start_ = 0;
  }
  return frame;
}

std::vector<std::uint8_t> BuildExecFrame(ExecFrameKind kind,
                                         std::span<const std::uint8_t> payload) {
  std::vector<std::uint8_t> frame = {static_cast<std::uint8_t>(kind), 0, 0, 0};
  frame.reserve(kExecFrameHeaderSize + payload.size());
  AppendInt32(frame, static_cast<std::int32_t>(payload.size()));
  frame.insert(frame.end(), payload.begin(), payload.end());
  return frame;
}

std::vector<std::uint8_t> BuildExecGrant(ExecFrameKind kind, std::int32_t bytes) {
  return BuildExecFrame(kind, Int32Argument(bytes));
}

std::vector<std::uint8_t> BuildExecExit(const ExecExit& exit) {
  std::vector<std::uint8_t> payload;
  AppendInt32(payload, static_cast<std::int32_t>(exit.outcome));
  AppendInt32(payload, exit.code);
  AppendInt32(payload, 0);
  return BuildExecFrame(ExecFrameKind::kExit, payload);
}

std::int32_t ParseExecGrant(std::span<const std::uint8_t> payload) {
  if (payload.size() < 4) return 0;
  return std::max(GetInt32(payload, 0), 0);
}

std::optional<ExecExit> ParseExecExit(std::span<const std::uint8_t> payload) {
  if (payload.size() < 12) return std::nullopt;
  std::int32_t outcome = GetInt32(payload, 0);
  if (outcome < 0 || outcome > static_cast<std::int32_t>(ExecOutcome::kTimedOut)) {
    return std::nullopt;
  }
  return ExecExit{static_cast<ExecOutcome>(outcome), GetInt32(payload, 4)};
}

std::vector<std::vector<std::uint8_t>> ExecHelloArguments(std::int32_t version) {
  return {Int32Argument(version)};
}

std::optional<std::int32_t> ParseExecHello(const RequestBlock& block) {
  if (block.code != kExecHelloCode || block.args.size() != 1) return std::nullopt;
  return Int32Of(block.args[0]);
}

std::vector<std::vector<std::uint8_t>> ExecRequestArguments(const ExecRequest& request) {
  std::vector<std::uint8_t> command;
  if (request.arguments.empty()) {
    internal::AppendBytes(command, request.command_line);
  } else {
    for (const std::string& argument : request.arguments) {
      internal::AppendBytes(command, argument);
      command.push_back(0);
    }
  }
  std::int32_t flags = request.arguments.empty() ? 0 : kExecArgumentVector;
  return {Int32Argument(flags), Int32Argument(request.timeout), std::move(command)};
}

std::optional<ExecRequest> ParseExecRequest(const RequestBlock& block) {
  if (block.code != kExecRunCode || block.args.size() != 3) return std::nullopt;
  std::optional<std::int32_t> flags = Int32Of(block.args[0]);
  std::optional<std::int32_t> timeout = Int32Of(block.args[1]);
  const std::vector<std::uint8_t>& command = block.args[2];
  if (!flags || !timeout || (*flags & ~kExecArgumentVector) != 0 || command.empty()) {
    return std::nullopt;
  }
  ExecRequest request;
  request.timeout = *timeout;
  if (*flags & kExecArgumentVector) {
    std::optional<std::vector<std::string>> arguments = SplitArguments(command);
    if (!arguments) return std::nullopt;
    request.arguments = std::move(*arguments);
    return request;
  }
  if (std::find(command.begin(), command.end(), std::uint8_t{0}) != command.end()) {
    return std::nullopt;
  }
  request.command_line.assign(command.begin(), command.end());
  return request;
}

}  // namespace pelmora::admin

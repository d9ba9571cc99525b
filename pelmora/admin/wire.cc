#include "pelmora/admin/wire.h"

#include <algorithm>
#include <limits>

#include "pelmora/admin/internal/byte_order.h"
#include "pelmora/common/codepage.h"

namespace pelmora::admin {
namespace {

using internal::AppendBytes;
using internal::AppendInt32;
using internal::GetInt32;

constexpr std::uint8_t kMarker = 0xFF;
constexpr std::size_t kSequenceOffset = 3;
constexpr std::size_t kDataSizeOffset = 7;
constexpr std::uint8_t kSuccessStatus = 'T';
constexpr std::uint8_t kFailureStatus = 'F';
constexpr std::size_t kResultCodeOffset = 1;
constexpr std::size_t kResultLengthOffset = 5;
constexpr std::size_t kResultMessageOffset = 9;

}  // namespace

std::int32_t NextSequenceNumber(std::int32_t current) {
  return current == std::numeric_limits<std::int32_t>::max() ? 0 : current + 1;
}

std::vector<std::uint8_t> BuildFramedPacket(std::int32_t sequence,
                                            std::span<const std::uint8_t> data) {
  std::vector<std::uint8_t> packet(kPacketSize, 0);
  std::size_t size = std::min(data.size(), kMaxFramedData);
  packet[0] = packet[1] = packet[2] = kMarker;
  internal::PutInt32(packet, kSequenceOffset, sequence);
  internal::PutInt32(packet, kDataSizeOffset, static_cast<std::int32_t>(size));
  std::copy_n(data.begin(), size, packet.begin() + kHeaderSize);
  return packet;
}

FramedMessage ParseFramedPacket(std::span<const std::uint8_t> packet,
                                std::int32_t expected_sequence) {
  FramedMessage message;
  if (packet.size() < kHeaderSize || packet[0] != kMarker || packet[1] != kMarker ||
      packet[2] != kMarker) {
    message.fault = PacketFault::kBadHeader;
    return message;
  }
  message.sequence = PacketSequenceNumber(packet);
  if (message.sequence != expected_sequence) {
    message.fault = PacketFault::kBadSequence;
    return message;
  }
  std::int32_t size = GetInt32(packet, kDataSizeOffset);
  if (size < 0 || static_cast<std::size_t>(size) > packet.size() - kHeaderSize) {
    message.fault = PacketFault::kBadDataSize;
    return message;
  }
  message.data = packet.subspan(kHeaderSize, static_cast<std::size_t>(size));
  return message;
}

std::int32_t PacketSequenceNumber(std::span<const std::uint8_t> packet) {
  return GetInt32(packet, kSequenceOffset);
}

std::vector<std::uint8_t> EncodeAnsiArgument(std::string_view utf8) {
  std::vector<std::uint8_t> arg;
  if (utf8.empty()) return arg;
  AppendBytes(arg, Utf8ToAnsi(utf8));
  arg.push_back(0);
  return arg;
}

std::vector<std::uint8_t> EncodeUnicodeArgument(std::string_view utf8) {
  std::vector<std::uint8_t> arg;
  AppendBytes(arg, Utf8ToUtf16Le(utf8));
  arg.push_back(0);
  arg.push_back(0);
  return arg;
}

std::string_view FlagText(std::int32_t flag) { return flag == -1 ? "TRUE" : "FALSE"; }

std::int32_t RequestBlockTotal(std::span<const std::vector<std::uint8_t>> args) {
  std::uint64_t total = 2;
  for (const auto& arg : args) total += 4 + static_cast<std::uint64_t>(arg.size());
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max());
  return static_cast<std::int32_t>(std::min(total, kMax));
}

std::vector<std::uint8_t> BuildRequestBlock(std::uint8_t code,
                                            std::span<const std::vector<std::uint8_t>> args) {
  std::vector<std::uint8_t> block;
  block.reserve(std::max<std::size_t>(kPacketSize, RequestBlockTotal(args)));
  block.push_back(code);
  block.push_back(static_cast<std::uint8_t>(args.size()));
  for (const auto& arg : args) {
    AppendInt32(block, static_cast<std::int32_t>(arg.size()));
    block.insert(block.end(), arg.begin(), arg.end());
  }
  if (block.size() < kPacketSize) block.resize(kPacketSize, 0);
  return block;
}

std::vector<std::uint8_t> BuildRequestBlock(RequestCode code,
                                            std::span<const std::vector<std::uint8_t>> args) {
  return BuildRequestBlock(static_cast<std::uint8_t>(code), args);
}

std::vector<std::uint8_t> BuildSizeMessage(std::int32_t total) {
  std::vector<std::uint8_t> data;
  AppendInt32(data, total);
  return data;
}

std::optional<std::int32_t> ParseSizeMessage(std::span<const std::uint8_t> data) {
  if (data.size() < 4) return std::nullopt;
  return GetInt32(data, 0);
}

std::optional<RequestBlock> ParseRequestBlock(std::span<const std::uint8_t> block) {
  if (block.size() < 2) return std::nullopt;
  RequestBlock request;
  request.code = block[0];
  std::size_t count = block[1];
  std::size_t position = 2;
  for (std::size_t i = 0; i < count; ++i) {
    if (block.size() - position < 4) return std::nullopt;
    std::int32_t length = GetInt32(block, position);
    position += 4;
    if (length < 0 || static_cast<std::size_t>(length) > block.size() - position) {
      return std::nullopt;
    }
    auto arg = block.subspan(position, static_cast<std::size_t>(length));
    request.args.emplace_back(arg.begin(), arg.end());
    position += arg.size();
  }
  return request;
}

std::string DecodeAnsiArgument(std::span<const std::uint8_t> arg) {
  auto end = std::find(arg.begin(), arg.end(), 0);
  return AnsiToUtf8(std::string(arg.begin(), end));
}

std::string DecodeUnicodeArgument(std::span<const std::uint8_t> arg) {
  std::size_t units = arg.size() / 2;
  std::size_t length = 0;
  while (length < units && (arg[2 * length] != 0 || arg[2 * length + 1] != 0)) ++length;
  return Utf16LeToUtf8(std::string(arg.begin(), arg.begin() + 2 * length));
}

std::optional<ResultReply> ParseResultReply(std::span<const std::uint8_t> data) {
  if (data.size() < kResultLengthOffset) return std::nullopt;
  ResultReply reply;
  reply.success = data[0] == kSuccessStatus;
  reply.code = GetInt32(data, kResultCodeOffset);
  if (reply.success) return reply;
  if (data.size() < kResultMessageOffset) return std::nullopt;
  std::int32_t length = GetInt32(data, kResultLengthOffset);
  if (length <= 0) return reply;
  if (static_cast<std::size_t>(length) > data.size() - kResultMessageOffset) return std::nullopt;
  auto message = data.subspan(kResultMessageOffset, static_cast<std::size_t>(length));
  reply.message = AnsiToUtf8(std::string(message.begin(), message.end()));
  return reply;
}

std::vector<std::uint8_t> BuildResultReply(bool success, std::int32_t code,
                                           std::string_view message_utf8) {
  std::string message = Utf8ToAnsi(message_utf8);
  message.resize(std::min(message.size(), kMaxFramedData - kResultMessageOffset));
  std::vector<std::uint8_t> data;
  data.push_back(success ? kSuccessStatus : kFailureStatus);
  AppendInt32(data, code);
  AppendInt32(data, static_cast<std::int32_t>(message.size()));
  AppendBytes(data, message);
  return data;
}

std::vector<std::uint8_t> BuildLoginMessage(std::string_view user_ansi,
                                            std::string_view password_ansi) {
  std::vector<std::uint8_t> data;
  AppendBytes(data, user_ansi);
  data.push_back('\n');
  AppendBytes(data, password_ansi);
  return data;
}

std::optional<std::pair<std::string, std::string>> ParseLoginMessage(
    std::span<const std::uint8_t> data) {
  auto line_feed = std::find(data.begin(), data.end(), '\n');
  if (line_feed == data.end()) return std::nullopt;
  return std::make_pair(std::string(data.begin(), line_feed),
                        std::string(line_feed + 1, data.end()));
}

}  // namespace pelmora::admin

#include "pelmora/admin/wire_replies.h"

#include <algorithm>
#include <utility>

#include "pelmora/admin/internal/byte_order.h"
#include "pelmora/common/codepage.h"

namespace pelmora::admin {
namespace {

using internal::AppendBytes;
using internal::AppendInt32;
using internal::AppendUint64;
using internal::GetInt32;
using internal::GetUint64;

constexpr std::int32_t kStatusKind = 0;
constexpr std::int32_t kOutputKind = 1;
constexpr std::size_t kCommandReplyHeader = 8;
constexpr std::size_t kRecordFixedPart = 32;

// The command's ANSI form with its terminator: always at least the terminator.
std::vector<std::uint8_t> CommandArgument(std::string_view command_utf8) {
  std::vector<std::uint8_t> arg;
  AppendBytes(arg, Utf8ToAnsi(command_utf8));
  arg.push_back(0);
  return arg;
}

// Reads a length-prefixed UTF-16LE text at `position`, advancing it; false when it runs past.
bool ReadRecordText(std::span<const std::uint8_t> data, std::size_t& position, std::string& text) {
  if (data.size() - position < 4) return false;
  std::int32_t length = GetInt32(data, position);
  position += 4;
  if (length <= 0) return true;
  if (static_cast<std::size_t>(length) > data.size() - position) return false;
  text = DecodeWireText(data.subspan(position, static_cast<std::size_t>(length)));
  position += static_cast<std::size_t>(length);
  return true;
}

// The three FILETIMEs (creation, last access, last write) that records and transfer headers share.
template <typename T>
void ReadFileTimes(std::span<const std::uint8_t> data, std::size_t offset, T& value) {
  value.creation_time = GetUint64(data, offset);
  value.last_access_time = GetUint64(data, offset + 8);
  value.last_write_time = GetUint64(data, offset + 16);
}

template <typename T>
void AppendFileTimes(std::vector<std::uint8_t>& out, const T& value) {
  AppendUint64(out, value.creation_time);
  AppendUint64(out, value.last_access_time);
  AppendUint64(out, value.last_write_time);
}

void AppendRecordText(std::vector<std::uint8_t>& out, std::string_view utf8) {
  std::string utf16 = Utf8ToUtf16Le(utf8);
  AppendInt32(out, static_cast<std::int32_t>(utf16.size()));
  AppendBytes(out, utf16);
}

}  // namespace

std::int32_t CommandRequestTotal(std::string_view command_utf8) {
  return static_cast<std::int32_t>(Utf8ToAnsi(command_utf8).size()) + 15;
}

std::vector<std::uint8_t> BuildCommandRequest(std::string_view command_utf8, std::int32_t timeout) {
  std::vector<std::vector<std::uint8_t>> args = {CommandArgument(command_utf8), {}};
  AppendInt32(args[1], timeout);
  return BuildRequestBlock(RequestCode::kSyncCreateProcess, args);
}

std::optional<CommandRequest> ParseCommandRequest(const RequestBlock& block) {
  if (block.code != static_cast<std::uint8_t>(RequestCode::kSyncCreateProcess) ||
      block.args.size() < 2 || block.args[1].size() != 4) {
    return std::nullopt;
  }
  CommandRequest request;
  request.command = DecodeAnsiArgument(block.args[0]);
  request.timeout = GetInt32(block.args[1], 0);
  return request;
}

std::optional<CommandReply> ParseCommandReply(std::span<const std::uint8_t> data) {
  if (data.size() < 4) return std::nullopt;
  CommandReply reply;
  reply.raw_kind = GetInt32(data, 0);
  if (reply.raw_kind != kStatusKind && reply.raw_kind != kOutputKind) return reply;
  if (data.size() < kCommandReplyHeader) return std::nullopt;
  std::int32_t value = GetInt32(data, 4);
  if (reply.raw_kind == kStatusKind) {
    reply.kind = CommandReplyKind::kStatus;
    reply.status = value;
    return reply;
  }
  if (value < 0 || static_cast<std::size_t>(value) > data.size() - kCommandReplyHeader) {
    return std::nullopt;
  }
  auto output = data.subspan(kCommandReplyHeader, static_cast<std::size_t>(value));
  reply.kind = CommandReplyKind::kOutput;
  reply.output = AnsiToUtf8(std::string(output.begin(), output.end()));
  return reply;
}

std::vector<std::uint8_t> BuildCommandStatusReply(std::int32_t status) {
  std::vector<std::uint8_t> data;
  AppendInt32(data, kStatusKind);
  AppendInt32(data, status);
  return data;
}

std::vector<std::uint8_t> BuildCommandOutputReply(std::string_view output_utf8) {
  std::string output = Utf8ToAnsi(output_utf8);
  output.resize(std::min(output.size(), kMaxCommandOutput));
  std::vector<std::uint8_t> data;
  AppendInt32(data, kOutputKind);
  AppendInt32(data, static_cast<std::int32_t>(output.size()));
  AppendBytes(data, output);
  return data;
}

std::string DecodeWireText(std::span<const std::uint8_t> data) {
  std::string utf16(data.begin(), data.end());
  if (utf16.size() % 2 != 0) utf16.push_back('\0');
  return Utf16LeToUtf8(utf16);
}

std::vector<std::uint8_t> EncodeWireText(std::string_view utf8) {
  std::vector<std::uint8_t> data;
  AppendBytes(data, Utf8ToUtf16Le(utf8));
  return data;
}

std::optional<FileInfoRecord> ParseFileInfoRecord(std::span<const std::uint8_t> data) {
  if (data.size() < kRecordFixedPart) return std::nullopt;
  FileInfoRecord record;
  record.attributes = GetInt32(data, 0);
  record.size = GetInt32(data, 4);
  ReadFileTimes(data, 8, record);
  std::size_t position = kRecordFixedPart;
  if (!ReadRecordText(data, position, record.name) ||
      !ReadRecordText(data, position, record.full_path) ||
      !ReadRecordText(data, position, record.parent_path)) {
    return std::nullopt;
  }
  return record;
}

std::vector<std::uint8_t> BuildFileInfoRecord(const FileInfoRecord& record) {
  std::vector<std::uint8_t> data;
  AppendInt32(data, record.attributes);
  AppendInt32(data, record.size);
  AppendFileTimes(data, record);
  AppendRecordText(data, record.name);
  AppendRecordText(data, record.full_path);
  AppendRecordText(data, record.parent_path);
  return data;
}

std::optional<std::vector<FileInfoRecord>> ParseListing(std::span<const std::uint8_t> data) {
  std::vector<FileInfoRecord> records;
  std::size_t position = 0;
  while (position < data.size()) {
    if (data.size() - position < 4) return std::nullopt;
    std::int32_t length = GetInt32(data, position);
    position += 4;
    if (length <= 0) continue;
    if (static_cast<std::size_t>(length) > data.size() - position) return std::nullopt;
    auto record = ParseFileInfoRecord(data.subspan(position, static_cast<std::size_t>(length)));
    if (!record) return std::nullopt;
    records.push_back(std::move(*record));
    position += static_cast<std::size_t>(length);
  }
  return records;
}

std::vector<std::uint8_t> BuildListing(std::span<const FileInfoRecord> records) {
  std::vector<std::uint8_t> data;
  for (const FileInfoRecord& record : records) {
    std::vector<std::uint8_t> bytes = BuildFileInfoRecord(record);
    AppendInt32(data, static_cast<std::int32_t>(bytes.size()));
    data.insert(data.end(), bytes.begin(), bytes.end());
  }
  return data;
}

std::vector<std::uint8_t> BuildTransferHeader(const TransferHeader& header) {
  std::vector<std::uint8_t> data;
  AppendInt32(data, header.size);
  AppendFileTimes(data, header);
  return data;
}

std::optional<TransferHeader> ParseTransferHeader(std::span<const std::uint8_t> data) {
  if (data.size() < kTransferHeaderSize) return std::nullopt;
  TransferHeader header;
  header.size = GetInt32(data, 0);
  ReadFileTimes(data, 4, header);
  return header;
}

std::vector<std::uint8_t> BuildGoReply(bool ready) {
  return {static_cast<std::uint8_t>(ready ? 'T' : 'F'), 0, 0, 0};
}

bool IsGoReply(std::span<const std::uint8_t> data) { return !data.empty() && data[0] == 'T'; }

}  // namespace pelmora::admin

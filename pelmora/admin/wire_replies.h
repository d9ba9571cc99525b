// The request-specific units of the administration protocol that sit on top of wire.h: the
// command request and its output and status replies, text messages, file-information records and
// folder listings, and the transfer size message with its go/no-go reply. Pure functions over
// bytes, shared by the client and the service; every parser is bounds-checked and fuzzed.
//
//   // announce CommandRequestTotal("dir") (18) in a size message, then send the block:
//   std::vector<std::uint8_t> block = BuildCommandRequest("dir", 5000);  // 1500 bytes
//   std::optional<CommandReply> reply = ParseCommandReply(message.data);
//   if (reply && reply->kind == CommandReplyKind::kOutput) Emit(reply->output);
#ifndef PELMORA_ADMIN_WIRE_REPLIES_H_
#define PELMORA_ADMIN_WIRE_REPLIES_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/wire.h"
#include "pelmora/common/error_numbers.h"
#include "pelmora/platform/export.h"

namespace pelmora::admin {

// ---- Command request (code 20) and its replies ----

// Status codes of a command status reply.
using errors::kProcessEndedAbnormally;
using errors::kProcessEndedNormally;
using errors::kProcessNotStarted;
using errors::kProcessTimedOut;

// The content length of a command request: command's ANSI length + 15.
PELMORA_API std::int32_t CommandRequestTotal(std::string_view command_utf8);

// The command request block: code 20, count 2, the command line in ANSI form (its length + 1,
// the bytes, a 0; an empty command still gets length 1 and the 0), then length 4 and `timeout`
// little-endian, unchanged. Sized max(1500, CommandRequestTotal) with a zero tail.
PELMORA_API std::vector<std::uint8_t> BuildCommandRequest(std::string_view command_utf8,
                                                          std::int32_t timeout);

// A command request as the service reads it.
struct PELMORA_API CommandRequest {
  std::string command;  // UTF-8, converted from ANSI, terminator removed
  std::int32_t timeout = 0;
};

// Reads a parsed request block as a command request: code 20, at least two arguments, the second
// exactly 4 bytes. nullopt otherwise.
PELMORA_API std::optional<CommandRequest> ParseCommandRequest(const RequestBlock& block);

// The kind field of a command reply (first 4 data bytes).
enum class CommandReplyKind { kStatus, kOutput, kOther };

// One command reply. kStatus: `status` holds the code. kOutput: `output` holds the text (UTF-8,
// converted from ANSI). kOther: a kind the client ignores; `raw_kind` holds it.
struct PELMORA_API CommandReply {
  CommandReplyKind kind = CommandReplyKind::kOther;
  std::int32_t raw_kind = 0;
  std::int32_t status = 0;
  std::string output;
};

// Parses the data of one command reply: kind (0 status, 1 output, other), then the status code or
// the output length L and L bytes. nullopt when shorter than 4 bytes, when a status or output
// reply is shorter than 8, or when L < 0 or runs past the data. Never throws.
PELMORA_API std::optional<CommandReply> ParseCommandReply(std::span<const std::uint8_t> data);

// The most output bytes one output reply can carry in a framed message.
inline constexpr std::size_t kMaxCommandOutput = kMaxFramedData - 8;

// Builds a status reply (kind 0, `status`).
PELMORA_API std::vector<std::uint8_t> BuildCommandStatusReply(std::int32_t status);

// Builds an output reply (kind 1, L, the ANSI bytes of `output_utf8`). Output longer than
// kMaxCommandOutput ANSI bytes is cut there; senders split long output over several replies.
PELMORA_API std::vector<std::uint8_t> BuildCommandOutputReply(std::string_view output_utf8);

// ---- Text messages and raw text ----

// A text message's data (or raw text after a size message) as UTF-8: the bytes are UTF-16LE code
// units as they stand, no terminator expected; an odd last byte becomes a character of its own
// (the byte as its low half).
PELMORA_API std::string DecodeWireText(std::span<const std::uint8_t> data);

// The UTF-16LE bytes of `utf8`, no terminator: the data of a text message or raw text.
PELMORA_API std::vector<std::uint8_t> EncodeWireText(std::string_view utf8);

// ---- File information records and listings ----

// One file-information record. Times are Windows FILETIME values (100-ns units since
// 1601-01-01 UTC); the texts are UTF-8.
struct PELMORA_API FileInfoRecord {
  std::int32_t attributes = 0;
  std::int32_t size = 0;  // low 32 bits of the file's size
  std::uint64_t creation_time = 0;
  std::uint64_t last_access_time = 0;
  std::uint64_t last_write_time = 0;
  std::string name;
  std::string full_path;
  std::string parent_path;
};

// Parses one record: 4 attributes, 4 size, three 8-byte FILETIMEs (low half first), then name,
// full path and parent path, each a 4-byte length and UTF-16LE bytes (a length <= 0 gives "" and
// consumes no text). Bytes after the record (packet padding) are ignored. nullopt when the fixed
// part or a text runs past the data. Never throws.
PELMORA_API std::optional<FileInfoRecord> ParseFileInfoRecord(std::span<const std::uint8_t> data);

// Builds one record (texts as UTF-16LE without terminator).
PELMORA_API std::vector<std::uint8_t> BuildFileInfoRecord(const FileInfoRecord& record);

// Parses listing data: entries of a 4-byte length R and R record bytes; R <= 0 is an empty entry
// and is skipped. nullopt when an entry's length or record runs past the data or a record is
// malformed. Never throws.
PELMORA_API std::optional<std::vector<FileInfoRecord>> ParseListing(
    std::span<const std::uint8_t> data);

// Builds listing data from records, one entry each.
PELMORA_API std::vector<std::uint8_t> BuildListing(std::span<const FileInfoRecord> records);

// ---- File transfer ----

// The 28-byte transfer size message: file size (-1 from the service: cannot open), creation,
// last-access and last-write FILETIMEs.
struct PELMORA_API TransferHeader {
  std::int32_t size = 0;
  std::uint64_t creation_time = 0;
  std::uint64_t last_access_time = 0;
  std::uint64_t last_write_time = 0;
};
inline constexpr std::size_t kTransferHeaderSize = 28;

// Builds / parses the transfer size message; parsing needs at least 28 bytes (nullopt otherwise).
PELMORA_API std::vector<std::uint8_t> BuildTransferHeader(const TransferHeader& header);
PELMORA_API std::optional<TransferHeader> ParseTransferHeader(std::span<const std::uint8_t> data);

// The go/no-go reply: 4 data bytes, "T" (ready) or "F" (refused) and three zeros.
PELMORA_API std::vector<std::uint8_t> BuildGoReply(bool ready);

// True when the reply's first byte is "T"; false for anything else, also empty data.
PELMORA_API bool IsGoReply(std::span<const std::uint8_t> data);

}  // namespace pelmora::admin

#endif  // PELMORA_ADMIN_WIRE_REPLIES_H_

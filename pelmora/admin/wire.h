// The wire units of the administration protocol: packets, framed messages, request blocks, size
// messages, result replies and the login message. Pure functions over bytes: nothing here touches
// a socket, so the client and the service share them and every parser can be fuzzed.
//
// A client sends a request like this:
//
//   std::vector<std::vector<std::uint8_t>> args = {EncodeUnicodeArgument("C:\\Data")};
//   std::int32_t total = RequestBlockTotal(args);
//   sequence = NextSequenceNumber(sequence);
//   socket.Send(BuildFramedPacket(sequence, BuildSizeMessage(total)));    // 1500 bytes
//   socket.Send(BuildRequestBlock(RequestCode::kFolderExists, args));     // max(1500, total)
//   FramedMessage reply = ParseFramedPacket(socket.Receive(kPacketSize), sequence);
//   std::optional<ResultReply> result = ParseResultReply(reply.data);
//
// All integers on the wire are little-endian. docs/protocol.md describes every unit for writers
// of compatible peers. The replies of individual requests are in wire_replies.h.
#ifndef PELMORA_ADMIN_WIRE_H_
#define PELMORA_ADMIN_WIRE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelmora/platform/export.h"

namespace pelmora::admin {

// Every framed message travels as one packet of exactly kPacketSize bytes: an 11-byte header
// (three 0xFF markers, the sequence number, the data size) followed by at most kMaxFramedData
// data bytes and zero padding. Request blocks are never shorter than kPacketSize either.
inline constexpr std::size_t kPacketSize = 1500;
inline constexpr std::size_t kHeaderSize = 11;
inline constexpr std::size_t kMaxFramedData = kPacketSize - kHeaderSize;

// The sequence counter a client starts with; the first framed message it sends carries the next
// number (2147483641) and the eighth wraps to 0.
inline constexpr std::int32_t kFirstSequenceNumber = 2147483640;

// The administration service's TCP port.
inline constexpr std::uint16_t kServicePort = 8002;

// The command code carried in byte 0 of a request block.
enum class RequestCode : std::uint8_t {
  kUpload = 0,                 // one Unicode argument: the remote file
  kDownload = 1,               // one Unicode argument: the remote file
  kGetFileInfo = 3,            // one Unicode argument: the remote file or folder
  kGetFolderFiles = 4,         // one Unicode argument: the remote folder
  kFileExists = 5,             // one Unicode argument
  kFolderExists = 6,           // one Unicode argument
  kCreateRemoteFile = 7,       // file, overwrite flag, Unicode flag (Unicode list)
  kCreateRemoteFolder = 8,     // one Unicode argument
  kDeleteRemoteFile = 9,       // one Unicode argument
  kDeleteRemoteFolder = 10,    // one Unicode argument
  kCopyRemoteFile = 11,        // existing, new, overwrite flag (Unicode list)
  kCopyRemoteFolder = 12,      // existing, new, overwrite flag (Unicode list)
  kGetPathWithKey = 13,        // key (Unicode list of one)
  kGetPrintQ = 14,             // one empty ANSI argument
  kMoveRemoteFile = 15,        // existing, new (two Unicode arguments)
  kIsSameMachineWithSvr = 17,  // one empty ANSI argument
  kGetFileVersion = 18,        // file (Unicode list of one)
  kGetSystemDirectory = 19,    // one empty ANSI argument
  kSyncCreateProcess = 20,     // ANSI command line, 4-byte time-out (see wire_replies.h)
  kGetSystemTime = 21,         // one empty ANSI argument
};

// The sequence number that follows `current`: 2147483647 (0x7FFFFFFF) wraps to 0, any other
// value is incremented. The sender advances its counter before each framed message it sends.
PELMORA_API std::int32_t NextSequenceNumber(std::int32_t current);

// The 1500-byte packet of one framed message: 0xFF 0xFF 0xFF, `sequence`, data size, `data`,
// zero padding. Data longer than kMaxFramedData cannot fit: callers refuse such a message before
// building it (the client reports 8004 "Invalid Data Size" for sizes over 1500); should one reach
// this function anyway, only the first kMaxFramedData bytes are framed and declared, so the result
// is always exactly kPacketSize bytes. Never fails.
PELMORA_API std::vector<std::uint8_t> BuildFramedPacket(std::int32_t sequence,
                                                        std::span<const std::uint8_t> data);

// Why a received packet is not a valid framed message, checked in this order.
enum class PacketFault {
  kNone,         // valid: sequence and data are set
  kBadHeader,    // shorter than the header, or a marker byte is not 0xFF (skip the packet)
  kBadSequence,  // sequence number is not the expected one (skip the packet)
  kBadDataSize,  // declared size < 0 or more than the bytes after the header (fatal to the read)
};

// One parsed packet. `data` points into the packet that was parsed (valid while it lives).
// `sequence` is set from kBadSequence on; `data` only when `fault` is kNone.
struct PELMORA_API FramedMessage {
  PacketFault fault = PacketFault::kNone;
  std::int32_t sequence = 0;
  std::span<const std::uint8_t> data;
};

// Parses one received packet (normally kPacketSize bytes) against the sequence number of the last
// framed message sent. Bounds-checked: a declared size below 0 or above packet.size() - 11 gives
// kBadDataSize, so data is never read past the packet. Never throws.
PELMORA_API FramedMessage ParseFramedPacket(std::span<const std::uint8_t> packet,
                                            std::int32_t expected_sequence);

// The sequence number a packet carries (0 when it is shorter than a header), for the service,
// which takes the client's number instead of expecting one.
PELMORA_API std::int32_t PacketSequenceNumber(std::span<const std::uint8_t> packet);

// An argument in ANSI form: `utf8` converted to the ANSI code page (codepage.h) plus one 0 byte.
// The empty string gives no bytes at all (length 0, no terminator).
PELMORA_API std::vector<std::uint8_t> EncodeAnsiArgument(std::string_view utf8);

// An argument in Unicode form: `utf8` as UTF-16LE plus two 0 bytes; "" gives the two zeros.
PELMORA_API std::vector<std::uint8_t> EncodeUnicodeArgument(std::string_view utf8);

// The flag argument text: "TRUE" when `flag` is exactly -1 (an automation True), "FALSE" for any
// other value, also another nonzero one.
PELMORA_API std::string_view FlagText(std::int32_t flag);

// The length of a request block's content: 2 + the sum of (4 + argument length). This is the
// value the size message announces. Saturates at the int32 maximum (never reached in practice).
PELMORA_API std::int32_t RequestBlockTotal(std::span<const std::vector<std::uint8_t>> args);

// The request block: byte 0 `code`, byte 1 the argument count (low byte), then each argument as a
// 4-byte length and its bytes; sized max(1500, RequestBlockTotal(args)) with a zero tail.
PELMORA_API std::vector<std::uint8_t> BuildRequestBlock(
    std::uint8_t code, std::span<const std::vector<std::uint8_t>> args);
PELMORA_API std::vector<std::uint8_t> BuildRequestBlock(
    RequestCode code, std::span<const std::vector<std::uint8_t>> args);

// The 4 data bytes of a size message: `total` little-endian. It announces a request block, and
// the service uses the same form to announce raw reply data (listings, key paths, print queues).
PELMORA_API std::vector<std::uint8_t> BuildSizeMessage(std::int32_t total);

// The number a size message carries (its first 4 bytes, signed); nullopt if fewer than 4 bytes.
PELMORA_API std::optional<std::int32_t> ParseSizeMessage(std::span<const std::uint8_t> data);

// A parsed request block: the command code and each argument's bytes as sent (ANSI arguments keep
// their 0 terminator, Unicode ones their two zeros).
struct PELMORA_API RequestBlock {
  std::uint8_t code = 0;
  std::vector<std::vector<std::uint8_t>> args;
};

// Parses a request block received by the service (its announced content, padding allowed after
// it). nullopt when shorter than 2 bytes, when an argument length is negative, or when an argument
// runs past the end of `block`. No allocation is larger than `block`. Never throws.
PELMORA_API std::optional<RequestBlock> ParseRequestBlock(std::span<const std::uint8_t> block);

// Reads an argument back as UTF-8 text. ANSI: bytes up to the first 0 (or the end) converted from
// the ANSI code page. Unicode: UTF-16LE up to the 0x0000 terminator (or the end; an odd last byte
// is dropped).
PELMORA_API std::string DecodeAnsiArgument(std::span<const std::uint8_t> arg);
PELMORA_API std::string DecodeUnicodeArgument(std::span<const std::uint8_t> arg);

// A result reply: status byte "T" (success) or anything else, a 32-bit code (stored by the client
// into ErrCode in both cases), and on failure a message.
struct PELMORA_API ResultReply {
  bool success = false;
  std::int32_t code = 0;
  std::string message;  // UTF-8, converted from the reply's ANSI bytes; "" on success
};

// Parses the data of a result reply. Success needs 5 bytes (status, code); failure 9 (status,
// code, message length N) and N message bytes; N <= 0 gives an empty message. nullopt when the
// data is too short or N runs past its end. Never throws.
PELMORA_API std::optional<ResultReply> ParseResultReply(std::span<const std::uint8_t> data);

// Builds the data of a result reply: "T" or "F", `code`, then N and the message in ANSI (no
// terminator). The message is cut so that the reply fits one framed message (kMaxFramedData).
PELMORA_API std::vector<std::uint8_t> BuildResultReply(bool success, std::int32_t code,
                                                       std::string_view message_utf8);

// The data of the login message: the user name bytes, one line feed (10), the password bytes; no
// terminator, no lengths. Both are already ANSI (and normally encoded, credentials.h).
PELMORA_API std::vector<std::uint8_t> BuildLoginMessage(std::string_view user_ansi,
                                                        std::string_view password_ansi);

// Splits a login message at its first line feed into (user, password), bytes as sent. nullopt
// when there is no line feed.
PELMORA_API std::optional<std::pair<std::string, std::string>> ParseLoginMessage(
    std::span<const std::uint8_t> data);

}  // namespace pelmora::admin

#endif  // PELMORA_ADMIN_WIRE_H_

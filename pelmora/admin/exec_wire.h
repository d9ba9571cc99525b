// The extended command exchange: wire units shared by the client (RCFSO::RunCommand) and the
// service. After login a client asks with the hello request (code 40) which version the service
// speaks; a service without the extension answers its "unknown request" failure. The run request
// (code 41) starts a command line in UTF-8 or an argument vector; after the service's start reply
// both ends exchange stream frames (standard input, standard output, standard error, windows for
// flow control, the exit) until the service has sent its exit frame and the client its done frame.
//
//   ExecFrameReader reader;                  // bytes from the socket, in any pieces
//   reader.Append(received);
//   while (std::optional<ExecFrame> frame = reader.Next()) { ... }
//   if (reader.Broken()) { /* a malformed frame: end the exchange */ }
#ifndef PELMORA_ADMIN_EXEC_WIRE_H_
#define PELMORA_ADMIN_EXEC_WIRE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/wire.h"
#include "pelmora/platform/export.h"

namespace pelmora::admin {

// Request codes of the extension (no plain request uses them).
inline constexpr std::uint8_t kExecHelloCode = 40;
inline constexpr std::uint8_t kExecRunCode = 41;
// The version this code speaks: 1 the run request, 2 also the file mode requests (mode_wire.h),
// 3 also the download from an offset (resume_wire.h).
inline constexpr std::int32_t kExecVersion = 3;

// Run request flags (argument 1); any other bit set makes the service refuse the request.
inline constexpr std::int32_t kExecArgumentVector = 1;  // run argv directly, no shell

// Stream frames: an 8-byte header (kind, three zero bytes, int32 payload length) and the payload.
inline constexpr std::size_t kExecFrameHeaderSize = 8;
inline constexpr std::int32_t kExecMaxPayload = 65536;

// Frame kinds. Client to service: 0x01-0x04; service to client: 0x11-0x14.
enum class ExecFrameKind : std::uint8_t {
  kInput = 0x01,     // standard input bytes (1 to kExecMaxPayload), within the service's window
  kInputEnd = 0x02,  // end of standard input (no payload)
  kGrant = 0x03,     // int32: more output bytes the client accepts
  kDone = 0x04,      // the client's last frame (no payload); before the exit it cancels
  kOutput = 0x11,    // standard output bytes, within the client's window
  kError = 0x12,     // standard error bytes, within the client's window
  kInputGrant = 0x13,  // int32: more input bytes the service accepts
  kExit = 0x14,      // int32 outcome, int32 code, int32 0: the service's last frame
};

// How a command ended, as the exit frame carries it.
enum class ExecOutcome : std::int32_t {
  kExited = 0,     // code: the exit status 0-255
  kSignalled = 1,  // code: the signal number
  kTimedOut = 2,   // the time-out ran out and the process group was killed; code: the signal
};

struct PELMORA_API ExecExit {
  ExecOutcome outcome = ExecOutcome::kExited;
  std::int32_t code = 0;

  // The status a shell would give: the exit status, or 128 + the signal number.
  int ShellStatus() const;
  bool operator==(const ExecExit&) const = default;
};

struct PELMORA_API ExecFrame {
  ExecFrameKind kind = ExecFrameKind::kInput;
  std::vector<std::uint8_t> payload;
};

// Which end a reader parses for: the service reads client frames, the client service frames.
enum class ExecPeer { kClient, kService };

// Reassembles the stream frames that one end sends. A header with non-zero reserved bytes, an
// unknown kind for that end, a length outside 0..kExecMaxPayload, or a length that does not fit
// the kind (grant 4, exit 12, input end and done 0, data at least 1) breaks the reader: it
// yields nothing more. Holds at most one frame's bytes beyond what Next() has returned.
class PELMORA_API ExecFrameReader {
 public:
  explicit ExecFrameReader(ExecPeer sender) : sender_(sender) {}
  // Adds received bytes.
  void Append(std::span<const std::uint8_t> bytes);
  // The next complete frame, nullopt when more bytes are needed or the reader is broken.
  std::optional<ExecFrame> Next();
  bool Broken() const { return broken_; }
  // Bytes held that do not yet make a frame.
  std::size_t Pending() const { return buffer_.size() - start_; }
  // How many more bytes complete the frame being assembled (its header first, then its
  // payload): a reader that must not take bytes past the last frame asks for exactly these.
  std::size_t Wanted() const;

 private:
  ExecPeer sender_;
  std::vector<std::uint8_t> buffer_;
  std::size_t start_ = 0;
  bool broken_ = false;
};

// A frame's bytes: header and payload.
PELMORA_API std::vector<std::uint8_t> BuildExecFrame(ExecFrameKind kind,
                                                     std::span<const std::uint8_t> payload);
PELMORA_API std::vector<std::uint8_t> BuildExecGrant(ExecFrameKind kind, std::int32_t bytes);
PELMORA_API std::vector<std::uint8_t> BuildExecExit(const ExecExit& exit);

// The int32 of a grant frame's payload (4 bytes, checked by the reader); negative grants are 0.
PELMORA_API std::int32_t ParseExecGrant(std::span<const std::uint8_t> payload);
// The exit frame's payload (12 bytes, checked by the reader); nullopt for an unknown outcome.
PELMORA_API std::optional<ExecExit> ParseExecExit(std::span<const std::uint8_t> payload);

// The arguments of the hello request: one of 4 bytes, the client's version.
PELMORA_API std::vector<std::vector<std::uint8_t>> ExecHelloArguments(std::int32_t version);
// The client's version from a hello block; nullopt when malformed.
PELMORA_API std::optional<std::int32_t> ParseExecHello(const RequestBlock& block);

// What a run request asks for: a UTF-8 command line for the service's shell, or (arguments not
// empty) an argument vector run without a shell.
struct PELMORA_API ExecRequest {
  std::string command_line{};
  std::vector<std::string> arguments{};
  std::int32_t timeout = 0;  // milliseconds; 0 or less: none

  bool operator==(const ExecRequest&) const = default;
};

// The arguments of the run request: flags, time-out (int32 arguments) and the command (the UTF-8
// line, or each argument followed by one 0 byte). Arguments must not hold a 0 byte.
PELMORA_API std::vector<std::vector<std::uint8_t>> ExecRequestArguments(const ExecRequest& request);
// The request from a run block; nullopt for a wrong argument count or size, unknown flags, an
// empty command, a 0 byte in a command line, or an empty vector.
PELMORA_API std::optional<ExecRequest> ParseExecRequest(const RequestBlock& block);

}  // namespace pelmora::admin

#endif  // PELMORA_ADMIN_EXEC_WIRE_H_

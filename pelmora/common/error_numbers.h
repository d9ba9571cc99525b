// The library's own error numbers: what its objects leave in their error properties (ErrCode,
// LastError) or raise, beside the system's numbers (errno mapped to Win32, WinSock's 100xx) and
// the run-time's. The texts stay with the code that reports them, since one number carries
// several ("Invalid Data Size", "Cannot open remote file", ...).
//
//   if (fso.ErrCode() == pelmora::errors::kNotConnected) Reconnect();
#ifndef PELMORA_COMMON_ERROR_NUMBERS_H_
#define PELMORA_COMMON_ERROR_NUMBERS_H_

#include <cstdint>

namespace pelmora::errors {

// A received packet does not start with the three 0xFF bytes of a framed message.
inline constexpr std::int32_t kInvalidHeader = 8003;
// A size out of range: a framed message's data size, a size message, a listing or transfer
// header that overruns its data, a malformed command frame; also a download the server
// answers with size -1.
inline constexpr std::int32_t kInvalidDataSize = 8004;
// A framed message whose sequence number is not the one expected.
inline constexpr std::int32_t kIncorrectSequenceNumber = 8016;
// A required text argument is empty (nothing is sent).
inline constexpr std::int32_t kEmptyArgument = 8116;
// The session is not connected.
inline constexpr std::int32_t kNotConnected = 8117;
// A file or folder could not be opened or created, on the server or locally.
inline constexpr std::int32_t kCannotOpenFile = 8118;

// An application root asked for with a product code the library does not know.
inline constexpr std::int32_t kInvalidProductCode = 9000;

// The status of a remote command, as its status reply carries it.
inline constexpr std::int32_t kProcessEndedNormally = 9000;
inline constexpr std::int32_t kProcessNotStarted = 9001;
inline constexpr std::int32_t kProcessEndedAbnormally = 9002;
inline constexpr std::int32_t kProcessTimedOut = 9003;

}  // namespace pelmora::errors

#endif  // PELMORA_COMMON_ERROR_NUMBERS_H_

// Message texts for the error numbers the library reports.
//
// SystemMessageText gives the platform's own message for a Win32, Windows Sockets, WinInet or
// CryptoAPI number, exactly as the platform's message formatter returns it without its trailing
// line end; RuntimeErrorText gives the run-time error texts (13 "Type mismatch", ...).
//
//   SystemMessageText(10061)  // "No connection could be made because the target machine ..."
//   DescribeError(40006)      // "Error: 40006 (no description)"
#ifndef PELMORA_COMMON_ERROR_TEXTS_H_
#define PELMORA_COMMON_ERROR_TEXTS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "pelmora/platform/export.h"

namespace pelmora {

// The platform message for `code`, or nullopt when the platform has none. CryptoAPI numbers are
// the signed 32-bit values (NTE_BAD_KEY is -2146893821).
PELMORA_API std::optional<std::string_view> SystemMessageText(int32_t code);

// The symbolic name of a platform number ("WSAECONNREFUSED"), or nullopt.
PELMORA_API std::optional<std::string_view> SystemMessageName(int32_t code);

// The run-time error text for `code`, or nullopt.
PELMORA_API std::optional<std::string_view> RuntimeErrorText(int32_t code);

// "Error: " + code + " (no description)": the text used where no message exists.
PELMORA_API std::string NoDescriptionText(int32_t code);

// The platform message for `code` when there is one, otherwise NoDescriptionText(code).
PELMORA_API std::string DescribeError(int32_t code);

}  // namespace pelmora

#endif  // PELMORA_COMMON_ERROR_TEXTS_H_

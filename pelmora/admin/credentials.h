// The credential encoding of the administration protocol's login message.
//
// User names and passwords cross the wire encoded: each printable ASCII character (0x20 to 0x7E)
// is replaced through one fixed substitution table, every other byte is left as it is. The client
// encodes before sending (unless its caller already holds encoded credentials) and the service
// decodes with the same table, which lives in credentials.cc only and is listed in
// docs/protocol.md.
//
//   std::string wire = EncodeCredential("admin");       // what the login message carries
//   assert(DecodeCredential(wire) == "admin");
#ifndef PELMORA_ADMIN_CREDENTIALS_H_
#define PELMORA_ADMIN_CREDENTIALS_H_

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "pelmora/platform/export.h"

namespace pelmora::admin {

// The substitution table: entry i is the code that character 0x20 + i becomes.
inline constexpr std::size_t kCredentialTableSize = 0x7F - 0x20;
PELMORA_API const std::array<std::uint8_t, kCredentialTableSize>& CredentialTable();

// Maps every byte of `text` through the table (printable ASCII) or leaves it (anything else).
// Works on bytes, so it applies equally to UTF-8 and ANSI text. Never fails.
PELMORA_API std::string EncodeCredential(std::string_view text);

// The inverse of EncodeCredential: DecodeCredential(EncodeCredential(s)) == s for every s.
PELMORA_API std::string DecodeCredential(std::string_view text);

}  // namespace pelmora::admin

#endif  // PELMORA_ADMIN_CREDENTIALS_H_

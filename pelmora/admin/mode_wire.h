// The file mode requests of the extended exchange (version 2 of the hello, code 40): the plain
// upload and download carry no permission bits, so a client that wants a file's mode kept asks
// for it or sets it with these requests after the transfer. A service that answers the hello
// with version 1, or not at all, has neither request; the client then leaves modes alone.
//
//   get mode (42): a Unicode path                 -> "T" with the mode (0-0777) as the code
//   set mode (43): a Unicode path, int32 mode     -> "T" 0
//
//   auto block = ParseRequestBlock(bytes);
//   if (std::optional<ModeRequest> request = ParseModeRequest(*block)) { ... }
#ifndef PELMORA_ADMIN_MODE_WIRE_H_
#define PELMORA_ADMIN_MODE_WIRE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/wire.h"

#include "pelmora/platform/export.h"

namespace pelmora::admin {

inline constexpr std::uint8_t kModeGetCode = 42;
inline constexpr std::uint8_t kModeSetCode = 43;
// The first version of the hello that has the mode requests.
inline constexpr std::int32_t kModeVersion = 2;
// The bits a mode may hold: the permission bits only (never setuid, setgid or sticky).
inline constexpr std::int32_t kModePermissionBits = 0777;

// A mode request as the service reads it.
struct ModeRequest {
  bool set = false;
  std::string path;      // UTF-8, as sent
  std::int32_t mode = 0;  // set mode: the bits asked for (checked against kModePermissionBits)

  friend bool operator==(const ModeRequest&, const ModeRequest&) = default;
};

// The arguments of a get mode (no mode) or set mode request for `path`.
PELMORA_API std::vector<std::vector<std::uint8_t>> ModeArguments(std::string_view path,
                                                     std::optional<std::int32_t> mode);

// The path of a Unicode argument that the extended requests carry: UTF-16LE code units ending in
// one 0 unit, at least one character before it; nullopt for anything else.
PELMORA_API std::optional<std::string> ParsePathArgument(const std::vector<std::uint8_t>& argument);

// Reads a block of code 42 (one Unicode argument) or 43 (a Unicode argument and a 4-byte int32);
// nullopt for another code, another count, an argument of the wrong length, an empty path, or a
// mode with a bit outside kModePermissionBits.
PELMORA_API std::optional<ModeRequest> ParseModeRequest(const RequestBlock& block);

}  // namespace pelmora::admin

#endif  // PELMORA_ADMIN_MODE_WIRE_H_

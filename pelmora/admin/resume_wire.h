// The download-from-offset request of the extended exchange (version 3 of the hello, code 40):
// the plain download always starts at the first byte, so a client that kept part of a file asks
// for the rest with this request. A service that answers the hello with a lower version, or not
// at all, does not have it; the client then downloads the whole file again.
//
//   read from (44): a Unicode path, int32 offset   -> the download exchange from that offset
//
//   auto block = ParseRequestBlock(bytes);
//   if (std::optional<ResumeRequest> request = ParseResumeRequest(*block)) { ... }
#ifndef PELMORA_ADMIN_RESUME_WIRE_H_
#define PELMORA_ADMIN_RESUME_WIRE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/wire.h"

#include "pelmora/platform/export.h"

namespace pelmora::admin {

inline constexpr std::uint8_t kResumeCode = 44;
// The first version of the hello that has the download-from-offset request.
inline constexpr std::int32_t kResumeVersion = 3;

// The text of the 8004 a client reports when the size message describes another file than the
// one whose first part it holds (the file changed since): it then answers "F".
inline constexpr char kRemoteFileChanged[] = "Remote file changed";

// A download-from-offset request as the service reads it.
struct ResumeRequest {
  std::string path;         // UTF-8, as sent
  std::int32_t offset = 0;  // the first byte wanted, 0 or more

  friend bool operator==(const ResumeRequest&, const ResumeRequest&) = default;
};

// The two arguments of a download-from-offset request for `path` from byte `offset`.
PELMORA_API std::vector<std::vector<std::uint8_t>> ResumeArguments(std::string_view path,
                                                                   std::int32_t offset);

// Reads a block of code 44: a Unicode argument (as ParsePathArgument) and a 4-byte int32 offset;
// nullopt for another code, another count, an argument of the wrong length, an empty path or a
// negative offset.
PELMORA_API std::optional<ResumeRequest> ParseResumeRequest(const RequestBlock& block);

// The number of content bytes that follow the go reply of a download from `offset` of a file of
// `size` bytes: the bytes from the offset to the end, none when the offset is at or past it.
inline std::int32_t ResumeContentSize(std::int32_t size, std::int32_t offset) {
  return offset < size ? size - offset : 0;
}

}  // namespace pelmora::admin

#endif  // PELMORA_ADMIN_RESUME_WIRE_H_

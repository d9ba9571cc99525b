// Fuzzes the service's reading of the file mode requests: a request that parses holds no bit
// outside the permission bits and rebuilds to a block that parses to the same request.
#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/fuzz_check.h"
#include "pelmora/admin/mode_wire.h"

using namespace pelmora::admin;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto block = ParseRequestBlock(std::span<const std::uint8_t>(data, size));
  if (!block) return 0;
  auto request = ParseModeRequest(*block);
  if (!request) return 0;
  PELMORA_FUZZ_CHECK((request->mode & ~kModePermissionBits) == 0);
  std::optional<std::int32_t> mode;
  if (request->set) mode = request->mode;
  auto rebuilt = ParseRequestBlock(
      BuildRequestBlock(request->set ? kModeSetCode : kModeGetCode, ModeArguments(request->path, mode)));
  PELMORA_FUZZ_CHECK(rebuilt.has_value());
  auto again = ParseModeRequest(*rebuilt);
  // A path that is not valid UTF-16 decodes to replacement characters: compare what survives.
  PELMORA_FUZZ_CHECK(again && again->set == request->set && again->mode == request->mode);
  return 0;
}

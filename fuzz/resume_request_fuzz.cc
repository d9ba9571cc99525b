// Fuzzes the service's reading of the download-from-offset request: a request that parses has a
// path and an offset of 0 or more, and rebuilds to a block that parses to the same offset.
#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/fuzz_check.h"
#include "pelmora/admin/resume_wire.h"

using namespace pelmora::admin;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto block = ParseRequestBlock(std::span<const std::uint8_t>(data, size));
  if (!block) return 0;
  auto request = ParseResumeRequest(*block);
  if (!request) return 0;
  PELMORA_FUZZ_CHECK(request->offset >= 0 && !request->path.empty());
  auto rebuilt =
      ParseRequestBlock(BuildRequestBlock(kResumeCode, ResumeArguments(request->path, request->offset)));
  PELMORA_FUZZ_CHECK(rebuilt.has_value());
  auto again = ParseResumeRequest(*rebuilt);
  // A path that is not valid UTF-16 decodes to replacement characters: compare what survives.
  PELMORA_FUZZ_CHECK(again && again->offset == request->offset);
  return 0;
}

// Fuzzes the service's drive-letter path parser the way a request argument reaches it: UTF-16LE
// bytes decoded as a Unicode argument, then parsed. A valid result never names "." or "..",
// never holds a separator or NUL inside a name, and prints back to a path that parses to itself.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "fuzz/fuzz_check.h"
#include "pelmora/admin/wire.h"
#include "pelmorad/drive_path.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text =
      pelmora::admin::DecodeUnicodeArgument(std::span<const std::uint8_t>(data, size));
  pelmorad::PathResult result = pelmorad::ParseDrivePath(text, 1024);
  PELMORA_FUZZ_CHECK(result.path.has_value() == (result.error == 0));
  if (!result.path) return 0;
  for (const std::string& name : result.path->parts) {
    PELMORA_FUZZ_CHECK(!name.empty() && name != "." && name != "..");
    PELMORA_FUZZ_CHECK(name.find_first_of(std::string("\\/\0", 3)) == std::string::npos);
  }
  pelmorad::PathResult again = pelmorad::ParseDrivePath(result.path->Wire(), 4096);
  PELMORA_FUZZ_CHECK(again.path && again.path->Wire() == result.path->Wire());
  return 0;
}

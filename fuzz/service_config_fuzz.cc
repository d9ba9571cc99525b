// Fuzzes the service's configuration reader: any text either loads or is refused with a
// pelmora::Error (never another exception, never a crash), and what loads keeps the rules the
// service relies on: drive letters are letters with absolute folders, every account is found by
// its own name, and the limits are positive.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "pelmora/common/error.h"
#include "pelmorad/config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  pelmorad::Config config;
  try {
    config = pelmorad::ParseConfig(text, "fuzz.toml");
  } catch (const pelmora::Error&) {
    return 0;
  }
  for (const auto& [letter, folder] : config.drives) {
    PELMORA_FUZZ_CHECK(letter >= 'A' && letter <= 'Z');
    PELMORA_FUZZ_CHECK(!folder.empty() && folder.front() == '/');
  }
  for (const auto& [name, account] : config.accounts) {
    PELMORA_FUZZ_CHECK(config.FindAccount(name) == &account);
  }
  for (const auto& [key, path] : config.paths) {
    config.PathForKey(key);
    config.LinuxPathOf(path);
  }
  PELMORA_FUZZ_CHECK(config.limits.request_bytes >= 1500 && config.limits.request_bytes <= (16 << 20));
  return 0;
}

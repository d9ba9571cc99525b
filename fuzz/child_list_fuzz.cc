// Fuzzes the reader of a thread's list of children from /proc: every number it gives is a
// positive process number written in the input, and no more numbers than the input has digits.
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "pelmora/common/process_tree.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<pid_t> pids = pelmora::ParseChildList(text);
  PELMORA_FUZZ_CHECK(pids.size() <= (size + 1) / 2);
  for (pid_t pid : pids) {
    PELMORA_FUZZ_CHECK(pid > 0);
    PELMORA_FUZZ_CHECK(text.find(std::to_string(pid)) != std::string_view::npos);
  }
  return 0;
}

// Fuzzes the service's reading of the extended command exchange's requests: a run request that
// parses must rebuild to a block that parses to the same request; a hello is read the same way.
#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/fuzz_check.h"
#include "pelmora/admin/exec_wire.h"

using namespace pelmora::admin;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto block = ParseRequestBlock(std::span<const std::uint8_t>(data, size));
  if (!block) return 0;
  ParseExecHello(*block);
  block->code = kExecRunCode;
  auto request = ParseExecRequest(*block);
  if (!request) return 0;
  PELMORA_FUZZ_CHECK(request->arguments.empty() != request->command_line.empty());
  auto rebuilt = ParseRequestBlock(BuildRequestBlock(kExecRunCode, ExecRequestArguments(*request)));
  PELMORA_FUZZ_CHECK(rebuilt.has_value());
  auto again = ParseExecRequest(*rebuilt);
  PELMORA_FUZZ_CHECK(again && *again == *request);
  return 0;
}

// Fuzzes the request block parser the service runs on every request: a parsed block must rebuild
// to bytes that parse to the same block, and its arguments must decode as text.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"

using namespace pelmora::admin;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto block = ParseRequestBlock(std::span<const std::uint8_t>(data, size));
  if (!block) return 0;
  PELMORA_FUZZ_CHECK(block->args.size() == data[1]);
  auto rebuilt = BuildRequestBlock(block->code, block->args);
  auto reparsed = ParseRequestBlock(rebuilt);
  PELMORA_FUZZ_CHECK(reparsed && reparsed->code == block->code && reparsed->args == block->args);
  for (const auto& arg : block->args) {
    DecodeAnsiArgument(arg);
    DecodeUnicodeArgument(arg);
  }
  ParseCommandRequest(*block);
  return 0;
}

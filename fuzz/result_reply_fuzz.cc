// Fuzzes the result reply parser and its builder: a parsed failure reply rebuilds to one that
// parses to the same code.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "pelmora/admin/wire.h"

using namespace pelmora::admin;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto reply = ParseResultReply(std::span<const std::uint8_t>(data, size));
  if (!reply) return 0;
  PELMORA_FUZZ_CHECK(size >= 5);
  PELMORA_FUZZ_CHECK(reply->success == (data[0] == 'T'));
  PELMORA_FUZZ_CHECK(!reply->success || reply->message.empty());
  auto again = ParseResultReply(BuildResultReply(reply->success, reply->code, reply->message));
  PELMORA_FUZZ_CHECK(again && again->success == reply->success && again->code == reply->code);
  return 0;
}

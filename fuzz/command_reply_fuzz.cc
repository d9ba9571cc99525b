// Fuzzes the command reply parser (status and output replies, unknown kinds).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "pelmora/admin/wire_replies.h"

using namespace pelmora::admin;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto reply = ParseCommandReply(std::span<const std::uint8_t>(data, size));
  if (!reply) return 0;
  PELMORA_FUZZ_CHECK(size >= 4);
  if (reply->kind == CommandReplyKind::kStatus) {
    auto again = ParseCommandReply(BuildCommandStatusReply(reply->status));
    PELMORA_FUZZ_CHECK(again && again->status == reply->status);
  }
  if (reply->kind == CommandReplyKind::kOutput) PELMORA_FUZZ_CHECK(size >= 8);
  return 0;
}

// Fuzzes the framed packet parser: the data it returns must lie inside the packet, and a valid
// packet's data must survive being framed again.
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
  std::span<const std::uint8_t> packet(data, size);
  // Expect the sequence number the packet carries (when it has one) so the size check is reached.
  std::int32_t expected = size >= 7
                              ? static_cast<std::int32_t>(data[3] | data[4] << 8 | data[5] << 16 |
                                                          static_cast<std::uint32_t>(data[6]) << 24)
                              : 0;
  FramedMessage message = ParseFramedPacket(packet, expected);
  if (message.fault != PacketFault::kNone) {
    PELMORA_FUZZ_CHECK(message.data.empty());
    return 0;
  }
  PELMORA_FUZZ_CHECK(message.data.data() == data + kHeaderSize || message.data.empty());
  PELMORA_FUZZ_CHECK(message.data.size() <= size - kHeaderSize);
  if (message.data.size() <= kMaxFramedData) {
    auto again = BuildFramedPacket(message.sequence, message.data);
    FramedMessage reparsed = ParseFramedPacket(again, message.sequence);
    PELMORA_FUZZ_CHECK(reparsed.fault == PacketFault::kNone);
    PELMORA_FUZZ_CHECK(std::equal(reparsed.data.begin(), reparsed.data.end(), message.data.begin(),
                                  message.data.end()));
  }
  return 0;
}

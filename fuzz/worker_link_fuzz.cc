// Fuzzes the decoders of the messages between the service's root process and its account
// workers. A packet that decodes encodes back to exactly the same bytes (every field is read,
// nothing is left over), so no two packets mean the same message.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "pelmorad/worker_link.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::span<const std::uint8_t> packet(data, size);
  std::vector<std::uint8_t> bytes(packet.begin(), packet.end());
  if (auto setup = pelmorad::DecodeSetup(packet)) {
    PELMORA_FUZZ_CHECK(pelmorad::EncodeSetup(*setup) == bytes);
  }
  if (auto state = pelmorad::DecodeSession(packet)) {
    PELMORA_FUZZ_CHECK(pelmorad::EncodeSession(*state) == bytes);
  }
  for (auto kind : {pelmorad::LinkKind::kRevoke, pelmorad::LinkKind::kStop,
                    pelmorad::LinkKind::kEnded}) {
    if (auto number = pelmorad::DecodeNumber(kind, packet)) {
      PELMORA_FUZZ_CHECK(pelmorad::EncodeNumber(kind, *number) == bytes);
    }
  }
  return 0;
}

// Fuzzes the file-information record, listing and transfer size message parsers.
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
  std::span<const std::uint8_t> bytes(data, size);
  if (auto record = ParseFileInfoRecord(bytes)) {
    auto again = ParseFileInfoRecord(BuildFileInfoRecord(*record));
    PELMORA_FUZZ_CHECK(again && again->attributes == record->attributes &&
                       again->last_write_time == record->last_write_time);
  }
  if (auto listing = ParseListing(bytes)) {
    PELMORA_FUZZ_CHECK(listing->size() <= size / 36);
  }
  ParseTransferHeader(bytes);
  return 0;
}

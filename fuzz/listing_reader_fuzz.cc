// Fuzzes the incremental listing reader: the first byte chooses the piece size, the rest is the
// listing. Whatever the pieces, the reader must agree with the one-shot listing parser.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "pelmora/admin/listing_reader.h"
#include "pelmora/admin/wire_replies.h"

using namespace pelmora::admin;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t piece = data[0] % 64 + 1;
  std::span<const std::uint8_t> listing(data + 1, size - 1);
  ListingReader reader;
  std::vector<FileInfoRecord> records;
  for (std::size_t at = 0; at < listing.size(); at += piece) {
    reader.Feed(listing.subspan(at, std::min(piece, listing.size() - at)), records);
  }
  PELMORA_FUZZ_CHECK(records.size() <= listing.size() / 36);
  const auto whole = ParseListing(listing);
  PELMORA_FUZZ_CHECK(reader.Finish() == whole.has_value());
  if (whole) PELMORA_FUZZ_CHECK(whole->size() == records.size());
  return 0;
}

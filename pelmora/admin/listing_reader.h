// ListingReader: parses the listing data of a folder as it arrives, in pieces of any size.
//
// A listing is a run of entries, each a 4-byte signed length R and R bytes of one
// file-information record (wire_replies.h); R <= 0 is an empty entry and is skipped. The reader
// holds at most one incomplete entry, and refuses an entry longer than kMaxListingRecord, so its
// memory follows the records themselves, never the total a peer announces.
//
//   ListingReader reader;
//   std::vector<FileInfoRecord> records;
//   while (more) reader.Feed(NextPiece(), records);   // false once the data is malformed
//   bool whole = reader.Finish();                     // false when an entry was left incomplete
#ifndef PELMORA_ADMIN_LISTING_READER_H_
#define PELMORA_ADMIN_LISTING_READER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "pelmora/admin/wire_replies.h"
#include "pelmora/platform/export.h"

namespace pelmora::admin {

// The longest record a listing entry may carry: the fixed part and three texts of up to 32767
// UTF-16 characters each, rounded up. Longer entries are refused as malformed.
inline constexpr std::size_t kMaxListingRecord = 256 * 1024;

class PELMORA_API ListingReader {
 public:
  ListingReader() = default;

  // Takes the next bytes of the listing and appends each record completed by them to `records`.
  // Returns false, and ignores everything from then on, once an entry is malformed: R above
  // kMaxListingRecord, or a record whose fixed part or inner text lengths overrun its R bytes.
  // Never throws (beyond allocation failure).
  bool Feed(std::span<const std::uint8_t> bytes, std::vector<FileInfoRecord>& records);

  // True when no fault was found and the data ended on an entry boundary.
  bool Finish() const;

  // Whether a fault was found.
  bool Failed() const { return failed_; }

 private:
  bool TakeLength(std::span<const std::uint8_t>& bytes);
  bool TakeRecord(std::span<const std::uint8_t>& bytes, std::vector<FileInfoRecord>& records);
  bool Emit(std::span<const std::uint8_t> record, std::vector<FileInfoRecord>& records);

  std::array<std::uint8_t, 4> length_bytes_{};
  std::size_t length_held_ = 0;        // bytes of the current entry's length held so far
  std::size_t record_size_ = 0;        // R of the entry being read; 0 while reading a length
  std::vector<std::uint8_t> pending_;  // the record bytes held so far
  bool failed_ = false;
};

}  // namespace pelmora::admin

#endif  // PELMORA_ADMIN_LISTING_READER_H_

#include "pelmora/admin/listing_reader.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "pelmora/admin/internal/byte_order.h"

namespace pelmora::admin {

bool ListingReader::Feed(std::span<const std::uint8_t> bytes,
                         std::vector<FileInfoRecord>& records) {
  while (!failed_ && !bytes.empty()) {
    if (record_size_ == 0) {
      if (!TakeLength(bytes)) failed_ = true;
    } else if (!TakeRecord(bytes, records)) {
      failed_ = true;
    }
  }
  return !failed_;
}

bool ListingReader::Finish() const { return !failed_ && length_held_ == 0 && record_size_ == 0; }

// Gathers the 4 length bytes; a complete length R > 0 starts a record, R <= 0 is skipped.
bool ListingReader::TakeLength(std::span<const std::uint8_t>& bytes) {
  const std::size_t n = std::min(bytes.size(), length_bytes_.size() - length_held_);
  std::copy_n(bytes.begin(), n, length_bytes_.begin() + static_cast<std::ptrdiff_t>(length_held_));
  length_held_ += n;
  bytes = bytes.subspan(n);
  if (length_held_ < length_bytes_.size()) return true;
  length_held_ = 0;
  const std::int32_t length = internal::GetInt32(length_bytes_, 0);
  if (length <= 0) return true;
  if (static_cast<std::size_t>(length) > kMaxListingRecord) return false;
  record_size_ = static_cast<std::size_t>(length);
  return true;
}

// Parses the record straight from `bytes` when it is there whole, otherwise gathers it.
bool ListingReader::TakeRecord(std::span<const std::uint8_t>& bytes,
                               std::vector<FileInfoRecord>& records) {
  if (pending_.empty() && bytes.size() >= record_size_) {
    const std::span<const std::uint8_t> record = bytes.first(record_size_);
    bytes = bytes.subspan(record_size_);
    return Emit(record, records);
  }
  const std::size_t n = std::min(bytes.size(), record_size_ - pending_.size());
  pending_.insert(pending_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n));
  bytes = bytes.subspan(n);
  if (pending_.size() < record_size_) return true;
  const bool ok = Emit(pending_, records);
  pending_.clear();
  return ok;
}

bool ListingReader::Emit(std::span<const std::uint8_t> record,
                         std::vector<FileInfoRecord>& records) {
  record_size_ = 0;
  std::optional<FileInfoRecord> parsed = ParseFileInfoRecord(record);
  if (!parsed) return false;
  records.push_back(std::move(*parsed));
  return true;
}

}  // namespace pelmora::admin

// Compressed data waiting for zip_close: an unlinked temporary file that the entries' data is
// appended to, and libzip sources that serve a range of it as already-compressed data, so that
// libzip copies it into the archive as it is.
#ifndef PELMORA_ARCHIVE_INTERNAL_SPOOL_SOURCE_H_
#define PELMORA_ARCHIVE_INTERNAL_SPOOL_SOURCE_H_

#include <zip.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "pelmora/archive/internal/extraction_folder.h"

namespace pelmora::archive::internal {

// An append-only temporary file, removed when the last holder lets go.
class Spool {
 public:
  // Creates the spool in `folder` (falling back to the temporary folder); nullptr on failure.
  static std::shared_ptr<Spool> Create(const std::string& folder);

  // Appends `data`; false on a write failure.
  bool Append(std::span<const uint8_t> data);
  // Drops everything after `end`.
  bool Truncate(uint64_t end);
  uint64_t End() const { return end_; }
  int Fd() const { return fd_.get(); }

 private:
  explicit Spool(UniqueFd fd) : fd_(std::move(fd)) {}
  UniqueFd fd_;
  uint64_t end_ = 0;
};

// What one spooled entry holds.
struct SpooledData {
  uint64_t offset = 0;
  uint64_t length = 0;
  bool stored = false;
  uint32_t crc = 0;
  uint64_t size = 0;
  int64_t mtime = 0;
};

// A source for zip_file_add serving `data` from `spool`; nullptr on failure.
zip_source_t* MakeSpoolSource(zip_t* archive, std::shared_ptr<Spool> spool,
                              const SpooledData& data);

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_SPOOL_SOURCE_H_

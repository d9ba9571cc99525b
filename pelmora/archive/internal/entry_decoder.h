// Streams one entry's data out of an open archive: raw bytes through libzip, then PKWARE
// decryption, inflation or a plain copy, CRC-32 and size checks, and the expansion budget that
// stops zip bombs. Unencrypted entries of up to 8 MiB are read and inflated whole with libdeflate;
// larger ones, encrypted ones and any that fail to decode whole stream through zlib in a few fixed
// buffers.
#ifndef PELMORA_ARCHIVE_INTERNAL_ENTRY_DECODER_H_
#define PELMORA_ARCHIVE_INTERNAL_ENTRY_DECODER_H_

#include <zip.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace pelmora::archive::internal {

// What is known of one entry before its data is read.
struct EntryInfo {
  uint64_t index = 0;
  std::string name;           // as stored
  uint64_t size = 0;          // declared uncompressed size
  uint64_t compressed = 0;    // compressed size, encryption header included
  uint32_t crc = 0;           // declared CRC-32
  uint16_t method = 0;        // 0 stored, 8 deflated
  bool encrypted = false;
  uint16_t flags = 0;         // general purpose flags (0 when unknown)
  bool flags_known = false;
  uint32_t dos_time = 0;
  int64_t mtime = 0;          // from the UT field when present, else the MS-DOS time
  bool text = false;          // the internal attributes mark it as text
  bool unix_mode_known = false;
  uint32_t unix_mode = 0;     // st_mode bits when made on Unix
};

// The running total of bytes an extraction has produced, against its limits.
struct ExpansionBudget {
  uint64_t archive_size = 0;
  uint64_t max_total_bytes = 0;
  double max_ratio = 0;       // of bytes produced to the archive's size
  uint64_t ratio_floor = 0;   // the ratio is checked only above this many bytes
  uint64_t produced = 0;

  // Adds `bytes`; false when that goes beyond a limit.
  bool Charge(uint64_t bytes);
};

enum class DecodeStatus {
  kOk,
  kBadCrc,       // the data decoded but its CRC differs
  kBadData,      // the data could not be decoded, or its size differs from the declared one
  kOverBudget,   // the expansion budget ran out
  kSinkFailed,   // the sink refused the data
};

// Outcome of one decode.
struct DecodeResult {
  DecodeStatus status = DecodeStatus::kOk;
  uint32_t crc = 0;
  uint64_t size = 0;
};

// Receives decoded data; false stops the decode with kSinkFailed.
using DataSink = std::function<bool(std::span<const uint8_t>)>;

// Decoded bytes held in memory.
struct DecodedBytes {
  std::unique_ptr<uint8_t[]> data;
  size_t size = 0;
  std::span<const uint8_t> View() const { return {data.get(), size}; }
};

// Whether `password` opens the encrypted entry (its 12-byte header check). Blocks on file reads.
bool PasswordFits(zip_t* archive, const EntryInfo& entry, const std::string& password);

// Decodes the entry into `sink`, decrypting with `password` when it is encrypted. Blocks on file
// reads and on the sink.
DecodeResult DecodeEntry(zip_t* archive, const EntryInfo& entry, const std::string& password,
                         ExpansionBudget& budget, const DataSink& sink);

// DecodeEntry into memory: `out` gets the entry's declared size, filled with its data when the
// result is kOk (an unencrypted entry of up to 8 MiB is decoded straight into it). For entries
// whose declared size the caller has accepted to hold.
DecodeResult DecodeToMemory(zip_t* archive, const EntryInfo& entry, const std::string& password,
                            ExpansionBudget& budget, DecodedBytes& out);

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_ENTRY_DECODER_H_

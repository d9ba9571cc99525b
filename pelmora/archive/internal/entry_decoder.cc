// Entry decoding: raw data from libzip, decrypted and inflated here so that the password check,
// the CRC and the size limits follow the unzip program's rules.
#include "pelmora/archive/internal/entry_decoder.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <vector>

#include "pelmora/archive/internal/pkware.h"

namespace pelmora::archive::internal {
namespace {

constexpr size_t kChunk = 64 * 1024;
// Entries whose data and decoded form are both at most this large are decoded in one call.
constexpr uint64_t kWholeEntryLimit = uint64_t{8} << 20;

struct ZipFileCloser {
  void operator()(zip_file_t* file) const { zip_fclose(file); }
};
using ZipFilePtr = std::unique_ptr<zip_file_t, ZipFileCloser>;

ZipFilePtr OpenRaw(zip_t* archive, const EntryInfo& entry) {
  zip_flags_t flags = ZIP_FL_COMPRESSED | (entry.encrypted ? ZIP_FL_ENCRYPTED : 0);
  return ZipFilePtr(zip_fopen_index(archive, entry.index, flags));
}

// Reads up to `out.size()` bytes; the count read, or -1 on a read error.
int64_t ReadSome(zip_file_t* file, std::span<uint8_t> out) {
  return zip_fread(file, out.data(), out.size());
}

bool ReadHeader(zip_file_t* file, std::array<uint8_t, kPkwareHeaderSize>& header) {
  return ReadSome(file, header) == static_cast<int64_t>(header.size());
}

// Opens the entry and, when it is encrypted, checks its header with `password`.
ZipFilePtr OpenChecked(zip_t* archive, const EntryInfo& entry, std::optional<PkwareDecryptor>& key,
                       const std::string& password) {
  ZipFilePtr file = OpenRaw(archive, entry);
  if (!file || !entry.encrypted) return file;
  std::array<uint8_t, kPkwareHeaderSize> header{};
  if (!ReadHeader(file.get(), header)) return nullptr;
  auto time_byte = static_cast<uint8_t>(entry.dos_time >> 8);
  auto crc_byte = static_cast<uint8_t>(entry.crc >> 24);
  bool by_time = (entry.flags & 8) != 0;
  key.emplace(password);
  if (!key->CheckHeader(header, by_time ? time_byte : crc_byte, by_time ? crc_byte : time_byte,
                        !entry.flags_known)) {
    return nullptr;
  }
  return file;
}

// Checks and forwards decoded data.
class Output {
 public:
  Output(const EntryInfo& entry, ExpansionBudget& budget, const DataSink& sink)
      : entry_(entry), budget_(budget), sink_(sink) {}

  bool Emit(std::span<const uint8_t> data) {
    if (data.empty()) return true;
    if (data.size() > entry_.size - result_.size) return Fail(DecodeStatus::kBadData);
    if (!budget_.Charge(data.size())) return Fail(DecodeStatus::kOverBudget);
    result_.crc = libdeflate_crc32(result_.crc, data.data(), data.size());
    result_.size += data.size();
    return sink_(data) || Fail(DecodeStatus::kSinkFailed);
  }

  bool Fail(DecodeStatus status) {
    result_.status = status;
    return false;
  }

  DecodeResult Finish() {
    if (result_.status != DecodeStatus::kOk) return result_;
    if (result_.size != entry_.size) result_.status = DecodeStatus::kBadData;
    else if (result_.crc != entry_.crc) result_.status = DecodeStatus::kBadCrc;
    return result_;
  }

 private:
  const EntryInfo& entry_;
  ExpansionBudget& budget_;
  const DataSink& sink_;
  DecodeResult result_;
};

// Reads, decrypts and hands on raw chunks until `feed` refuses one or the data ends.
// libzip reports an error for a read past the end, so the reads stop at the raw size.
template <class Feed>
bool PumpRaw(zip_file_t* file, const EntryInfo& entry, std::optional<PkwareDecryptor>& key,
             Output& out, Feed feed) {
  std::vector<uint8_t> buffer(kChunk);
  uint64_t header = entry.encrypted ? kPkwareHeaderSize : 0;
  uint64_t left = entry.compressed > header ? entry.compressed - header : 0;
  while (left > 0) {
    int64_t n = ReadSome(file, {buffer.data(), static_cast<size_t>(std::min<uint64_t>(
                                                   left, buffer.size()))});
    if (n <= 0) return out.Fail(DecodeStatus::kBadData);
    left -= static_cast<uint64_t>(n);
    std::span<uint8_t> chunk(buffer.data(), static_cast<size_t>(n));
    if (key) key->Decrypt(chunk);
    if (!feed(chunk)) return false;
  }
  return true;
}

struct InflateEnd {
  void operator()(z_stream* stream) const { inflateEnd(stream); }
};

bool Inflate(zip_file_t* file, const EntryInfo& entry, std::optional<PkwareDecryptor>& key, Output& out) {
  z_stream stream{};
  if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) return out.Fail(DecodeStatus::kBadData);
  std::unique_ptr<z_stream, InflateEnd> guard(&stream);
  std::vector<uint8_t> produced(kChunk);
  bool ended = false;
  bool ok = PumpRaw(file, entry, key, out, [&](std::span<uint8_t> chunk) {
    stream.next_in = chunk.data();
    stream.avail_in = static_cast<uInt>(chunk.size());
    // Until this input is used up and nothing is held back: a full output buffer may leave
    // output pending after the last input byte (data compressible a thousandfold does).
    bool full = false;
    while (!ended && (stream.avail_in > 0 || full)) {
      stream.next_out = produced.data();
      stream.avail_out = static_cast<uInt>(produced.size());
      int rc = inflate(&stream, Z_NO_FLUSH);
      if (rc == Z_BUF_ERROR && stream.avail_in == 0) break;  // nothing held back: more input
      if (rc != Z_OK && rc != Z_STREAM_END) return out.Fail(DecodeStatus::kBadData);
      ended = rc == Z_STREAM_END;
      full = stream.avail_out == 0;
      if (!out.Emit({produced.data(), produced.size() - stream.avail_out})) return false;
    }
    return true;
  });
  return ok && (ended || out.Fail(DecodeStatus::kBadData));
}

// A libdeflate decompressor kept by each thread.
libdeflate_decompressor* ThreadDecompressor() {
  struct Kept {
    ~Kept() { libdeflate_free_decompressor(decompressor); }
    libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
  };
  thread_local Kept kept;
  return kept.decompressor;
}

// The raw data of whole entries, kept by each thread so that its pages are not faulted in again
// for every entry.
std::vector<uint8_t>& ThreadRawBuffer() {
  thread_local std::vector<uint8_t> raw;
  return raw;
}

// Decodes an unencrypted entry held whole in memory into `out` (entry.size bytes). Only an entry
// that decodes to exactly its declared size and CRC within the budget is taken here; for anything
// else this returns false with the budget untouched, and the streaming decoder, which reports
// where it fails, takes the entry.
bool DecodeWholeInto(zip_t* archive, const EntryInfo& entry, const ExpansionBudget& budget,
                     uint8_t* out) {
  if (entry.encrypted || entry.size > kWholeEntryLimit || entry.compressed > kWholeEntryLimit) {
    return false;
  }
  ExpansionBudget trial = budget;
  if (!trial.Charge(entry.size)) return false;
  if (entry.method == ZIP_CM_STORE && entry.compressed != entry.size) return false;
  // Stored data is read where it goes; deflated data into this thread's raw buffer.
  std::vector<uint8_t>& buffer = ThreadRawBuffer();
  if (entry.method == ZIP_CM_DEFLATE && buffer.size() < entry.compressed) {
    buffer.resize(static_cast<size_t>(entry.compressed));
  }
  std::span<uint8_t> raw(entry.method == ZIP_CM_STORE ? out : buffer.data(),
                         static_cast<size_t>(entry.compressed));
  ZipFilePtr file = OpenRaw(archive, entry);
  if (!file || (!raw.empty() && ReadSome(file.get(), raw) != static_cast<int64_t>(raw.size()))) {
    return false;
  }
  if (entry.method == ZIP_CM_DEFLATE) {
    libdeflate_decompressor* decompressor = ThreadDecompressor();
    size_t produced = 0;
    if (decompressor == nullptr ||
        libdeflate_deflate_decompress(decompressor, raw.data(), raw.size(), out,
                                      static_cast<size_t>(entry.size),
                                      &produced) != LIBDEFLATE_SUCCESS ||
        produced != entry.size) {
      return false;
    }
  }
  return libdeflate_crc32(0, out, static_cast<size_t>(entry.size)) == entry.crc;
}

// DecodeWholeInto through a sink, which receives the data in the streaming decoder's chunks.
std::optional<DecodeResult> DecodeWhole(zip_t* archive, const EntryInfo& entry,
                                        ExpansionBudget& budget, const DataSink& sink) {
  if (entry.size > kWholeEntryLimit) return std::nullopt;
  // Left uninitialised: every byte is read or decoded before it is used.
  auto data = std::make_unique_for_overwrite<uint8_t[]>(static_cast<size_t>(entry.size));
  if (!DecodeWholeInto(archive, entry, budget, data.get())) return std::nullopt;
  DecodeResult result{DecodeStatus::kOk, entry.crc, 0};
  for (size_t at = 0; at < entry.size; at += kChunk) {
    std::span<const uint8_t> chunk(data.get() + at, std::min<size_t>(kChunk, entry.size - at));
    budget.Charge(chunk.size());
    if (!sink(chunk)) return DecodeResult{DecodeStatus::kSinkFailed, result.crc, at + chunk.size()};
  }
  result.size = entry.size;
  return result;
}

// Decodes through zlib (or a plain copy) in fixed chunks, decrypting when needed.
DecodeResult DecodeStreamed(zip_t* archive, const EntryInfo& entry, const std::string& password,
                            ExpansionBudget& budget, const DataSink& sink) {
  Output out(entry, budget, sink);
  std::optional<PkwareDecryptor> key;
  ZipFilePtr file = OpenChecked(archive, entry, key, password);
  if (!file) {
    out.Fail(DecodeStatus::kBadData);
  } else if (entry.method == ZIP_CM_DEFLATE) {
    Inflate(file.get(), entry, key, out);
  } else {
    PumpRaw(file.get(), entry, key, out, [&](std::span<uint8_t> chunk) { return out.Emit(chunk); });
  }
  return out.Finish();
}

}  // namespace

bool ExpansionBudget::Charge(uint64_t bytes) {
  produced += bytes;
  if (produced > max_total_bytes) return false;
  return produced <= ratio_floor ||
         static_cast<double>(produced) <= max_ratio * static_cast<double>(archive_size);
}

bool PasswordFits(zip_t* archive, const EntryInfo& entry, const std::string& password) {
  std::optional<PkwareDecryptor> key;
  return OpenChecked(archive, entry, key, password) != nullptr;
}

DecodeResult DecodeToMemory(zip_t* archive, const EntryInfo& entry, const std::string& password,
                            ExpansionBudget& budget, DecodedBytes& out) {
  out.size = static_cast<size_t>(entry.size);
  out.data = std::make_unique_for_overwrite<uint8_t[]>(out.size);
  if (DecodeWholeInto(archive, entry, budget, out.data.get())) {
    budget.Charge(entry.size);  // within the limits: the whole decode checked it
    return {DecodeStatus::kOk, entry.crc, entry.size};
  }
  size_t filled = 0;  // the decoder never hands on more than the declared size
  return DecodeStreamed(archive, entry, password, budget, [&](std::span<const uint8_t> data) {
    std::copy(data.begin(), data.end(), out.data.get() + filled);
    filled += data.size();
    return true;
  });
}

DecodeResult DecodeEntry(zip_t* archive, const EntryInfo& entry, const std::string& password,
                         ExpansionBudget& budget, const DataSink& sink) {
  if (auto whole = DecodeWhole(archive, entry, budget, sink)) return *whole;
  return DecodeStreamed(archive, entry, password, budget, sink);
}

}  // namespace pelmora::archive::internal

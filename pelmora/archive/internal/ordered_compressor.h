// Compresses files on a pool of worker threads and hands the results back in list order on the
// calling thread. At most `window_bytes` of input are held at once (at least one file); files
// larger than the in-memory limit are left to the caller, which streams them.
#ifndef PELMORA_ARCHIVE_INTERNAL_ORDERED_COMPRESSOR_H_
#define PELMORA_ARCHIVE_INTERNAL_ORDERED_COMPRESSOR_H_

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace pelmora::archive::internal {

// Files at most this large are compressed in memory by the workers.
inline constexpr uint64_t kInMemoryLimit = uint64_t{8} << 20;

// One file's compressed form.
struct Compressed {
  bool readable = true;
  bool stored = false;        // data holds the file as is (it did not shrink, or level 0)
  bool out_of_memory = false;  // the data could not be held
  uint32_t crc = 0;
  uint64_t size = 0;
  std::vector<uint8_t> data;  // raw deflate data, or the file's bytes when stored
};

// Compresses the file at `path` in memory with deflate `level` (0 stores); `expected_size` is what
// its size was when listed (the whole file is read whatever it is now).
Compressed CompressInMemory(const std::string& path, int level, uint64_t expected_size = 0);

// Appends bytes somewhere; false on failure.
using ByteSink = std::function<bool(std::span<const uint8_t>)>;

// Streams the file at `path` through deflate `level` into `sink`; `result` gets everything but
// the data (stored is left false). False when the file cannot be read or the sink fails.
bool CompressStreaming(const std::string& path, int level, const ByteSink& sink,
                       Compressed& result, uint64_t& compressed_size);

// Streams the file at `path` unchanged into `sink`, with its CRC and size into `result`.
bool CopyStreaming(const std::string& path, const ByteSink& sink, Compressed& result);

// One file to compress.
struct CompressJob {
  std::string path;
  uint64_t size = 0;
  bool skip = false;  // not compressed here (folders, large files): delivered empty
};

// Compresses `jobs` with up to `threads` workers (0: one per core; fewer when the system cannot
// start that many, and none, compressing on the calling thread, when it cannot start one) and calls
// `consume(index, result)` for each in order on the calling thread; a false from it stops the run
// (the workers are joined before returning). Returns false when stopped.
bool CompressInOrder(const std::vector<CompressJob>& jobs, int level, unsigned threads,
                     uint64_t window_bytes,
                     const std::function<bool(size_t, Compressed&&)>& consume);

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_ORDERED_COMPRESSOR_H_

// Deflate on worker threads with results delivered in order.
#include "pelmora/archive/internal/ordered_compressor.h"

#include <fcntl.h>
#include <libdeflate.h>
#include <unistd.h>
#include <zlib.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

#include "pelmora/archive/internal/extraction_folder.h"
#include "pelmora/platform/file_io.h"

namespace pelmora::archive::internal {
namespace {

constexpr size_t kReadChunk = 256 * 1024;

// A deflate stream kept by each thread and reset for every file: an archive of thousands of small
// files would otherwise spend much of its time setting up and tearing down deflate state.
class ThreadDeflater {
 public:
  ~ThreadDeflater() {
    if (level_ >= 0) deflateEnd(&stream_);
  }
  // The thread's stream, ready for a new raw deflate stream at `level`; nullptr when zlib fails.
  static z_stream* Fresh(int level) {
    thread_local ThreadDeflater deflater;
    return deflater.Reset(level);
  }

 private:
  z_stream* Reset(int level) {
    if (level_ == level) return deflateReset(&stream_) == Z_OK ? &stream_ : nullptr;
    if (level_ >= 0) deflateEnd(&stream_);
    level_ = -1;
    stream_ = z_stream{};
    if (deflateInit2(&stream_, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
      return nullptr;
    }
    level_ = level;
    return &stream_;
  }

  z_stream stream_{};
  int level_ = -1;  // -1: no stream set up
};

// Reads the whole of `fd` in chunks, calling `chunk` for each; false on a read error. `chunk` must
// not call ReadChunks itself (the read buffer is the thread's).
template <class F>
bool ReadChunks(int fd, F chunk) {
  thread_local std::vector<uint8_t> buffer(kReadChunk);
  for (;;) {
    ssize_t n = platform::Read(fd, buffer.data(), buffer.size());
    if (n < 0) return false;
    if (!chunk(std::span<const uint8_t>(buffer.data(), static_cast<size_t>(n)), n == 0)) {
      return false;
    }
    if (n == 0) return true;
  }
}

// Runs `input` through deflate into `sink`; `finish` ends the stream.
bool Deflate(z_stream& stream, std::span<const uint8_t> input, bool finish, const ByteSink& sink,
             uint64_t& produced) {
  uint8_t out[kReadChunk];
  stream.next_in = const_cast<uint8_t*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  int rc = Z_OK;
  do {
    stream.next_out = out;
    stream.avail_out = sizeof(out);
    rc = deflate(&stream, finish ? Z_FINISH : Z_NO_FLUSH);
    if (rc == Z_STREAM_ERROR) return false;
    size_t have = sizeof(out) - stream.avail_out;
    produced += have;
    if (have > 0 && !sink({out, have})) return false;
  } while (stream.avail_out == 0 || (finish && rc != Z_STREAM_END));
  return true;
}

}  // namespace

bool CompressStreaming(const std::string& path, int level, const ByteSink& sink,
                       Compressed& result, uint64_t& compressed_size) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return result.readable = false;
  z_stream* deflater = ThreadDeflater::Fresh(level);
  if (deflater == nullptr) return false;
  z_stream& stream = *deflater;
  compressed_size = 0;
  result.crc = 0;
  result.size = 0;
  return ReadChunks(fd.get(), [&](std::span<const uint8_t> chunk, bool end) {
    result.crc = static_cast<uint32_t>(crc32_z(result.crc, chunk.data(), chunk.size()));
    result.size += chunk.size();
    return Deflate(stream, chunk, end, sink, compressed_size);
  });
}

bool CopyStreaming(const std::string& path, const ByteSink& sink, Compressed& result) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return result.readable = false;
  result.crc = 0;
  result.size = 0;
  return ReadChunks(fd.get(), [&](std::span<const uint8_t> chunk, bool) {
    result.crc = static_cast<uint32_t>(crc32_z(result.crc, chunk.data(), chunk.size()));
    result.size += chunk.size();
    return chunk.empty() || sink(chunk);
  });
}

namespace {

// A libdeflate compressor kept by each thread for the level it last used.
class ThreadCompressor {
 public:
  ~ThreadCompressor() { libdeflate_free_compressor(compressor_); }
  // The thread's compressor for `level`; nullptr when it cannot be made.
  static libdeflate_compressor* For(int level) {
    thread_local ThreadCompressor kept;
    if (kept.compressor_ == nullptr || kept.level_ != level) {
      libdeflate_free_compressor(kept.compressor_);
      kept.compressor_ = libdeflate_alloc_compressor(level);
      kept.level_ = level;
    }
    return kept.compressor_;
  }

 private:
  libdeflate_compressor* compressor_ = nullptr;
  int level_ = -1;
};

// Reads the whole of `path` into `bytes`; false when it cannot be opened or read.
bool ReadWhole(const std::string& path, uint64_t expected, std::vector<uint8_t>& bytes) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return false;
  bytes.clear();
  bytes.reserve(static_cast<size_t>(expected));
  return ReadChunks(fd.get(), [&](std::span<const uint8_t> chunk, bool) {
    bytes.insert(bytes.end(), chunk.begin(), chunk.end());
    return true;
  });
}

}  // namespace

Compressed CompressInMemory(const std::string& path, int level, uint64_t expected_size) {
  Compressed result;
  std::vector<uint8_t> bytes;
  if (!ReadWhole(path, expected_size, bytes)) {
    result.readable = false;
    return result;
  }
  result.size = bytes.size();
  result.crc = libdeflate_crc32(0, bytes.data(), bytes.size());
  if (level > 0 && !bytes.empty()) {
    libdeflate_compressor* compressor = ThreadCompressor::For(level);
    if (compressor == nullptr) throw std::bad_alloc();
    // Room for one byte less than the file: data that does not shrink is stored instead.
    result.data.resize(bytes.size() - 1);
    size_t length = libdeflate_deflate_compress(compressor, bytes.data(), bytes.size(),
                                                result.data.data(), result.data.size());
    result.data.resize(length);
    if (length > 0) return result;
  }
  result.stored = true;
  result.data = std::move(bytes);
  return result;
}

namespace {

// One job's result; a job that runs out of memory reports it instead of ending the process.
Compressed Compress(const CompressJob& job, int level) {
  if (job.skip) return {};
  try {
    return CompressInMemory(job.path, level, job.size);
  } catch (...) {  // out of memory: nothing else in here throws
    Compressed result;
    result.out_of_memory = true;
    return result;
  }
}

// The shared state of one CompressInOrder run.
class OrderedRun {
 public:
  OrderedRun(const std::vector<CompressJob>& jobs, int level, uint64_t window)
      : jobs_(jobs), level_(level), window_(window), done_(jobs.size()) {}

  void Work() {
    for (;;) {
      size_t index = 0;
      {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return stop_ || next_ == jobs_.size() || Fits(jobs_[next_]); });
        if (stop_ || next_ == jobs_.size()) return;
        index = next_++;
        in_flight_ += Weight(jobs_[index]);
      }
      Compressed result = Compress(jobs_[index], level_);
      std::lock_guard lock(mutex_);
      done_[index] = std::move(result);
      changed_.notify_all();
    }
  }

  // Waits for result `index` and releases its share of the window.
  Compressed Take(size_t index) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return done_[index].has_value(); });
    Compressed result = std::move(*done_[index]);
    done_[index].reset();
    in_flight_ -= Weight(jobs_[index]);
    changed_.notify_all();
    return result;
  }

  void Stop() {
    std::lock_guard lock(mutex_);
    stop_ = true;
    changed_.notify_all();
  }

 private:
  static uint64_t Weight(const CompressJob& job) { return job.skip ? 0 : job.size; }
  bool Fits(const CompressJob& job) const {
    return in_flight_ == 0 || in_flight_ + Weight(job) <= window_;
  }

  const std::vector<CompressJob>& jobs_;
  int level_;
  uint64_t window_;
  std::mutex mutex_;
  std::condition_variable changed_;
  size_t next_ = 0;
  uint64_t in_flight_ = 0;
  bool stop_ = false;
  // One slot per job, made before any worker starts, so a worker delivers without allocating.
  std::vector<std::optional<Compressed>> done_;
};

// The workers of one run, stopped and joined however the run ends (an exception included).
class WorkerPool {
 public:
  WorkerPool(OrderedRun& run, size_t wanted) : run_(run) {
    workers_.reserve(wanted);
    for (size_t i = 0; i < wanted; ++i) {
      try {
        workers_.emplace_back([this] { run_.Work(); });
      } catch (const std::system_error&) {
        break;  // no more threads to be had: the ones started do the work
      }
    }
  }
  ~WorkerPool() {
    run_.Stop();
    for (std::thread& worker : workers_) worker.join();
  }
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  bool Empty() const { return workers_.empty(); }

 private:
  OrderedRun& run_;
  std::vector<std::thread> workers_;
};

}  // namespace

bool CompressInOrder(const std::vector<CompressJob>& jobs, int level, unsigned threads,
                     uint64_t window_bytes,
                     const std::function<bool(size_t, Compressed&&)>& consume) {
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  OrderedRun run(jobs, level, window_bytes);
  WorkerPool pool(run, std::min<size_t>(threads, jobs.size()));
  bool completed = true;
  for (size_t i = 0; i < jobs.size() && completed; ++i) {
    // Without a single worker the calling thread compresses each file itself.
    completed = consume(i, pool.Empty() ? Compress(jobs[i], level) : run.Take(i));
  }
  return completed;
}

}  // namespace pelmora::archive::internal

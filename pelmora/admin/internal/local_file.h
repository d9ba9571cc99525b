// Local files for the administration client's transfers and cache: a file opened as the
// platform's calls would open it, with whole-buffer reads and writes, and the three file times as
// Windows FILETIMEs.
//
// Linux keeps no settable creation time. Times() reports the birth time where the file system
// records one (statx STATX_BTIME) and the status-change time otherwise; SetTimes() sets the
// last-access and last-write times only (futimens).
//
//   LocalFile file = LocalFile::OpenForReading("/tmp/a.bin");
//   if (!file.IsOpen()) return Fail(file.Error());
//   std::optional<FileTimes> times = file.Times();
#ifndef PELMORA_ADMIN_INTERNAL_LOCAL_FILE_H_
#define PELMORA_ADMIN_INTERNAL_LOCAL_FILE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "pelmora/platform/file_io.h"

namespace pelmora::admin::internal {

// The three times of a file as FILETIMEs (100-ns intervals since 1601-01-01 UTC).
struct FileTimes {
  uint64_t creation = 0;
  uint64_t last_access = 0;
  uint64_t last_write = 0;
};

class LocalFile {
 public:
  // Opens an existing file for reading (like a read-share open of an existing file).
  static LocalFile OpenForReading(const std::string& path);
  // Creates the file for writing, replacing (truncating) any existing one; mode 0644.
  static LocalFile CreateAlways(const std::string& path);

  // Opens an existing file for writing from byte `offset` on: the file is cut to `offset`
  // bytes (it must hold at least that many) and written from there. Not open on failure.
  static LocalFile OpenAt(const std::string& path, int64_t offset);

  LocalFile() = default;

  bool IsOpen() const { return static_cast<bool>(fd_); }
  // The descriptor, -1 when not open (the value log lines show as the file handle).
  int Handle() const { return fd_.get(); }

  // Reads until `out` is full or the file ends; the count read, or -1 on a read error. Blocks on
  // the disk only.
  int64_t ReadFull(std::span<uint8_t> out);
  // Writes every byte; false (errno set) on a write error. After a failure nothing more is
  // written and every later call fails with the same errno.
  bool WriteAll(std::span<const uint8_t> bytes);
  // The errno of the first failed WriteAll (ENOSPC on a full disk, ...), 0 when none failed.
  int WriteError() const { return write_error_; }
  // The file's size in bytes, nullopt when it cannot be read.
  std::optional<int64_t> Size() const;
  // The file's times, nullopt when they cannot be read.
  std::optional<FileTimes> Times() const;
  // Sets the last-access and last-write times (full 100-ns precision); false on failure.
  bool SetTimes(uint64_t last_access, uint64_t last_write);
  // Closes the descriptor; false when close reports an error. Idempotent.
  bool Close();

 private:
  explicit LocalFile(int fd) : fd_(fd) {}
  platform::UniqueFd fd_;
  int write_error_ = 0;
};

// True when `path` names an existing regular file (symbolic links followed).
bool IsRegularFile(const std::string& path);

// The last-write time of the file at `path` in whole seconds since 1970-01-01 UTC, nullopt when
// it cannot be read.
std::optional<int64_t> LastWriteSeconds(const std::string& path);

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_LOCAL_FILE_H_

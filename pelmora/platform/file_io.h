// Files and descriptors, written once for the library, the service and the tool: an owning
// descriptor, an owning folder stream, reads and writes that go on until every byte is moved, and
// the calls that a test may make fail (see SetFileFaults and pelmora/testing/fault_file_api.h).
//
//   pelmora::platform::UniqueFd fd(pelmora::platform::Open(path, O_WRONLY | O_CREAT, 0644));
//   if (!fd) return errno;
//   if (int error = pelmora::platform::WriteFully(fd.get(), bytes); error != 0) return error;
//
// The member names follow std::unique_ptr (get, release, reset), the type these stand beside.
#ifndef PELMORA_PLATFORM_FILE_IO_H_
#define PELMORA_PLATFORM_FILE_IO_H_

#include <dirent.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "pelmora/platform/export.h"

namespace pelmora::platform {

// An owned file descriptor, closed when it goes. Empty holds -1.
class PELMORA_API UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  // Gives the descriptor up without closing it.
  int release() { return std::exchange(fd_, -1); }
  // Closes the held descriptor (if any) and holds `fd`; the close's result (0 or -1 with errno).
  int reset(int fd = -1);

 private:
  int fd_ = -1;
};

// An owned folder stream (opendir, fdopendir), closed when it goes.
struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

// The calls a test can make fail.
enum class FileCall { kOpen, kRead, kWrite, kFsync, kRename };

// What a test installs to fail chosen calls: Check returns 0 to let the call through or the
// errno to fail it with. It is asked from every thread that makes a call, with the descriptor the
// call acts on (for an open or a rename: the folder descriptor, AT_FDCWD for a plain path) and
// the name it opens or renames (nullptr for the others).
class PELMORA_API FileFaults {
 public:
  virtual ~FileFaults() = default;
  virtual int Check(FileCall call, int fd, const char* path) = 0;
};

// Installs `faults` for the whole process (nullptr removes it). With none installed each call
// costs one relaxed atomic load more than the system call.
PELMORA_API void SetFileFaults(FileFaults* faults);

namespace internal {
extern PELMORA_API std::atomic<FileFaults*> file_faults;
// 0, or the errno a test wants `call` to fail with (errno is then set to it).
PELMORA_API int InjectedFault(FileCall call, int fd, const char* path);
}  // namespace internal

// The system calls, each retried on EINTR and open to fault injection: -1 with errno on failure.
PELMORA_API int Open(const char* path, int flags, mode_t mode = 0);
PELMORA_API int OpenAt(int folder_fd, const char* path, int flags, mode_t mode = 0);
PELMORA_API ssize_t Read(int fd, void* data, size_t size);
PELMORA_API ssize_t Pread(int fd, void* data, size_t size, off_t offset);
PELMORA_API ssize_t Write(int fd, const void* data, size_t size);
PELMORA_API ssize_t Pwrite(int fd, const void* data, size_t size, off_t offset);
PELMORA_API int Fsync(int fd);
PELMORA_API int RenameAt(int from_folder, const char* from, int to_folder, const char* to,
                         unsigned flags = 0);

// Reads until `out` is full or the file ends: the count read, or -1 (errno set) on a failure.
PELMORA_API ssize_t ReadFully(int fd, std::span<uint8_t> out);
// The same from `offset` on, with pread (the descriptor's position is not moved).
PELMORA_API ssize_t PreadFully(int fd, std::span<uint8_t> out, uint64_t offset);
// Writes every byte: 0, or the errno of the failing write (EIO when one writes nothing).
PELMORA_API int WriteFully(int fd, std::span<const uint8_t> bytes);
PELMORA_API int WriteFully(int fd, std::string_view bytes);
// The same from `offset` on, with pwrite.
PELMORA_API int PwriteFully(int fd, std::span<const uint8_t> bytes, uint64_t offset);

}  // namespace pelmora::platform

#endif  // PELMORA_PLATFORM_FILE_IO_H_

#include "pelmora/platform/file_io.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>

namespace pelmora::platform {
namespace internal {

std::atomic<FileFaults*> file_faults{nullptr};

int InjectedFault(FileCall call, int fd, const char* path) {
  FileFaults* faults = file_faults.load(std::memory_order_acquire);
  if (faults == nullptr) return 0;
  int error = faults->Check(call, fd, path);
  if (error != 0) errno = error;
  return error;
}

}  // namespace internal

namespace {

// Fails with the injected errno, else makes the call again for as long as it is interrupted.
template <class Call>
auto Retried(FileCall kind, int fd, const char* path, Call call) -> decltype(call()) {
  if (internal::file_faults.load(std::memory_order_relaxed) != nullptr &&
      internal::InjectedFault(kind, fd, path) != 0) {
    return -1;
  }
  decltype(call()) result;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

// Moves bytes with `step(done)` until `size` are moved or a step moves none.
template <class Step>
ssize_t Fully(size_t size, bool stop_at_end, Step step) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = step(done);
    if (n < 0) return -1;
    if (n == 0) {
      if (stop_at_end) break;
      errno = EIO;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

int UniqueFd::reset(int fd) {
  int old = std::exchange(fd_, fd);
  return old >= 0 ? ::close(old) : 0;
}

void SetFileFaults(FileFaults* faults) {
  internal::file_faults.store(faults, std::memory_order_release);
}

int Open(const char* path, int flags, mode_t mode) {
  return Retried(FileCall::kOpen, AT_FDCWD, path, [&] { return ::open(path, flags, mode); });
}

int OpenAt(int folder_fd, const char* path, int flags, mode_t mode) {
  return Retried(FileCall::kOpen, folder_fd, path,
                 [&] { return ::openat(folder_fd, path, flags, mode); });
}

ssize_t Read(int fd, void* data, size_t size) {
  return Retried(FileCall::kRead, fd, nullptr, [&] { return ::read(fd, data, size); });
}

ssize_t Pread(int fd, void* data, size_t size, off_t offset) {
  return Retried(FileCall::kRead, fd, nullptr, [&] { return ::pread(fd, data, size, offset); });
}

ssize_t Write(int fd, const void* data, size_t size) {
  return Retried(FileCall::kWrite, fd, nullptr, [&] { return ::write(fd, data, size); });
}

ssize_t Pwrite(int fd, const void* data, size_t size, off_t offset) {
  return Retried(FileCall::kWrite, fd, nullptr, [&] { return ::pwrite(fd, data, size, offset); });
}

int Fsync(int fd) {
  return Retried(FileCall::kFsync, fd, nullptr, [&] { return ::fsync(fd); });
}

int RenameAt(int from_folder, const char* from, int to_folder, const char* to, unsigned flags) {
  return Retried(FileCall::kRename, from_folder, from,
                 [&] { return ::renameat2(from_folder, from, to_folder, to, flags); });
}

ssize_t ReadFully(int fd, std::span<uint8_t> out) {
  return Fully(out.size(), true,
               [&](size_t done) { return Read(fd, out.data() + done, out.size() - done); });
}

ssize_t PreadFully(int fd, std::span<uint8_t> out, uint64_t offset) {
  return Fully(out.size(), true, [&](size_t done) {
    return Pread(fd, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
  });
}

int WriteFully(int fd, std::span<const uint8_t> bytes) {
  ssize_t n = Fully(bytes.size(), false, [&](size_t done) {
    return Write(fd, bytes.data() + done, bytes.size() - done);
  });
  return n < 0 ? errno : 0;
}

int WriteFully(int fd, std::string_view bytes) {
  return WriteFully(fd, std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
}

int PwriteFully(int fd, std::span<const uint8_t> bytes, uint64_t offset) {
  ssize_t n = Fully(bytes.size(), false, [&](size_t done) {
    return Pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
  });
  return n < 0 ? errno : 0;
}

}  // namespace pelmora::platform

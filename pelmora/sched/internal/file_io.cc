#include "pelmora/sched/internal/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace pelmora::sched::internal {
namespace {

// Closes a descriptor on scope exit.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

int WriteAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n < 0 ? errno : EIO;
    done += static_cast<size_t>(n);
  }
  return 0;
}

}  // namespace

int ReadWholeFile(const std::string& path, size_t limit, std::string& bytes) {
  bytes.clear();
  Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return errno;
  char buffer[8192];
  while (true) {
    ssize_t n = read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return 0;
    if (bytes.size() + static_cast<size_t>(n) > limit) return EFBIG;
    bytes.append(buffer, static_cast<size_t>(n));
  }
}

int ReplaceFile(const std::string& path, const std::string& bytes, bool must_be_new) {
  std::string temporary = path + ".XXXXXX";
  int raw = mkostemp(temporary.data(), O_CLOEXEC);
  if (raw < 0) return errno;
  Fd fd(raw);
  int error = fchmod(fd.get(), 0644) != 0 ? errno : WriteAll(fd.get(), bytes);
  if (error == 0 && fsync(fd.get()) != 0) error = errno;
  if (error == 0) {
    if (must_be_new) {
      error = link(temporary.c_str(), path.c_str()) != 0 ? errno : 0;
    } else {
      error = rename(temporary.c_str(), path.c_str()) != 0 ? errno : 0;
    }
  }
  unlink(temporary.c_str());
  return error;
}

int PatchFile(const std::string& path, size_t offset, const std::string& bytes) {
  Fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (fd.get() < 0) return errno;
  ssize_t n = pwrite(fd.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
  if (n < 0) return errno;
  return static_cast<size_t>(n) == bytes.size() ? 0 : EIO;
}

}  // namespace pelmora::sched::internal

// Fuzzes the file version reader of executable images: the in-memory walk and the pread walk
// over the same bytes must agree, and a version is always four dotted numbers.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "fuzz/fuzz_check.h"
#include "pelmorad/pe_version.h"

namespace {

bool LooksLikeVersion(const std::string& version) {
  return version.empty() || (std::count(version.begin(), version.end(), '.') == 3 &&
                             version.size() <= 23 && version.front() != '.' &&
                             version.back() != '.');
}

// The same bytes as a file, so the bounded preads see what the in-memory walk saw.
std::string VersionThroughFile(const std::uint8_t* data, std::size_t size) {
  static int fd = memfd_create("pe_version_fuzz", MFD_CLOEXEC);
  if (fd < 0 || ftruncate(fd, 0) != 0) return "(no file)";
  if (size > 0 && pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return "(no file)";
  return pelmorad::ReadFileVersion(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string version = pelmorad::ParseFileVersion(std::span(data, size));
  PELMORA_FUZZ_CHECK(LooksLikeVersion(version));
  PELMORA_FUZZ_CHECK(VersionThroughFile(data, size) == version);
  return 0;
}

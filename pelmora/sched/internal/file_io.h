// The few file system calls of the task folder: bounded whole-file reads, replacing writes and
// in-place patches. Each returns 0 or the errno value of the call that failed.
#ifndef PELMORA_SCHED_INTERNAL_FILE_IO_H_
#define PELMORA_SCHED_INTERNAL_FILE_IO_H_

#include <cstddef>
#include <string>

namespace pelmora::sched::internal {

// Reads all of `path` into `bytes`; EFBIG when it holds more than `limit` bytes.
int ReadWholeFile(const std::string& path, size_t limit, std::string& bytes);

// Writes `bytes` to a temporary file beside `path` and renames it over `path` (mode 0644). With
// `must_be_new`, EEXIST when `path` exists (the rename is then a link, which never replaces).
int ReplaceFile(const std::string& path, const std::string& bytes, bool must_be_new);

// Writes `bytes` at `offset` of the existing file `path` with one pwrite.
int PatchFile(const std::string& path, size_t offset, const std::string& bytes);

}  // namespace pelmora::sched::internal

#endif  // PELMORA_SCHED_INTERNAL_FILE_IO_H_

// The few file system calls of the task folder: bounded whole-file reads, replacing writes and
// in-place patches. Each returns 0 or the errno value of the call that failed.
#ifndef PELMORA_SCHED_INTERNAL_FILE_IO_H_
#define PELMORA_SCHED_INTERNAL_FILE_IO_H_

#include <cstddef>
#include <string>

namespace pelmora::sched::internal {

// Reads all of `path` into `bytes`; EFBIG when it holds more than `limit` bytes.
int ReadWholeFile(const std::string& path, size_t limit, std::string& bytes);

// Puts `bytes` in place as `path` at once (pelmora::platform::AtomicFile, mode 0644): a failure
// leaves the old file whole. With `must_be_new`, EEXIST when `path` exists.
int ReplaceFile(const std::string& path, const std::string& bytes, bool must_be_new);

// Writes `bytes` at `offset` of the existing file `path`.
int PatchFile(const std::string& path, size_t offset, const std::string& bytes);

}  // namespace pelmora::sched::internal

#endif  // PELMORA_SCHED_INTERNAL_FILE_IO_H_

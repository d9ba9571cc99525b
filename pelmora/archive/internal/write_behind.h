// Finishes extracted files on worker threads: a file whose folder the calling thread has reached
// is created, its decoded bytes written, its mode and time set and its name committed while the
// caller goes on with the next entries (creating a file is what costs most on a disk). The caller
// waits for each file in the order it likes and reports the outcome itself, so every message and
// callback stays on its thread and in its place.
//
//   WriteBehind writer(0);
//   auto job = writer.Submit(std::move(target), std::move(bytes), 0644, mtime);
//   ...
//   bool ok = writer.Wait(*job);   // created, written and committed
#ifndef PELMORA_ARCHIVE_INTERNAL_WRITE_BEHIND_H_
#define PELMORA_ARCHIVE_INTERNAL_WRITE_BEHIND_H_

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "pelmora/archive/internal/entry_decoder.h"
#include "pelmora/archive/internal/extraction_folder.h"

namespace pelmora::archive::internal {

// One file to finish.
struct WriteJob {
  WriteJob(FileTarget f, DecodedBytes d, uint32_t m, int64_t t)
      : target(std::move(f)), data(std::move(d)), mode(m), mtime(t) {}
  FileTarget target;
  DecodedBytes data;
  uint32_t mode;
  int64_t mtime;
  bool done = false;
  bool created = false;  // the file could be created
  int create_error = 0;  // the errno of its creation when it could not
  bool ok = false;       // created, written and committed
};

class WriteBehind {
 public:
  // Starts up to `threads` workers (0: one per core, at least two: the work waits on the file
  // system more than it computes); with none started, Submit does the work itself.
  explicit WriteBehind(unsigned threads);
  // Finishes every queued file, then joins the workers.
  ~WriteBehind();
  WriteBehind(const WriteBehind&) = delete;
  WriteBehind& operator=(const WriteBehind&) = delete;

  std::shared_ptr<WriteJob> Submit(FileTarget target, DecodedBytes data, uint32_t mode,
                                   int64_t mtime);
  // Waits until `job` is finished; true when its file was created, written and committed. The
  // file's descriptor is closed (and a failed file removed) before this returns.
  bool Wait(WriteJob& job);

 private:
  static void Finish(WriteJob& job);
  void Work();

  std::mutex mutex_;
  std::condition_variable queued_;
  std::condition_variable finished_;
  std::deque<std::shared_ptr<WriteJob>> jobs_;
  bool stopping_ = false;
  // Wake-ups only for whoever sleeps: workers idle, and whether the caller waits.
  unsigned idle_ = 0;
  bool waiting_ = false;
  std::vector<std::thread> workers_;
};

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_WRITE_BEHIND_H_

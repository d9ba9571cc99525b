// The write-behind workers.
#include "pelmora/archive/internal/write_behind.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <system_error>

namespace pelmora::archive::internal {
namespace {

constexpr size_t kWakeBatch = 4;

}  // namespace

WriteBehind::WriteBehind(unsigned threads) {
  if (threads == 0) threads = std::clamp(std::thread::hardware_concurrency(), 2u, 8u);
  for (unsigned i = 0; i < threads; ++i) {
    try {
      workers_.emplace_back([this] { Work(); });
    } catch (const std::system_error&) {
      break;  // fewer workers, or the caller's thread alone
    }
  }
}

WriteBehind::~WriteBehind() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  queued_.notify_all();
  for (std::thread& worker : workers_) worker.join();
}

void WriteBehind::Finish(WriteJob& job) {
  std::optional<PendingFile> file = PendingFile::Create(std::move(job.target));
  if (file) {
    job.created = true;
    job.ok = file->Write(job.data.View()) && file->Commit(job.mode, job.mtime);
  } else {
    job.create_error = errno;
  }
  job.data = {};
  file.reset();  // closes the descriptor, removing a failed file
}

std::shared_ptr<WriteJob> WriteBehind::Submit(FileTarget target, DecodedBytes data, uint32_t mode,
                                              int64_t mtime) {
  auto job = std::make_shared<WriteJob>(std::move(target), std::move(data), mode, mtime);
  if (workers_.empty()) {
    Finish(*job);
    job->done = true;
    return job;
  }
  bool wake = false;
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back(job);
    // An idle worker is woken for a few files at once (Wait wakes one for fewer): a wake-up
    // per small file costs about as much as writing it to memory.
    wake = idle_ > 0 && jobs_.size() >= kWakeBatch;
  }
  if (wake) queued_.notify_one();
  return job;
}

bool WriteBehind::Wait(WriteJob& job) {
  std::unique_lock lock(mutex_);
  if (!job.done && idle_ > 0 && !jobs_.empty()) queued_.notify_all();
  waiting_ = true;
  finished_.wait(lock, [&] { return job.done; });
  waiting_ = false;
  return job.ok;
}

void WriteBehind::Work() {
  std::unique_lock lock(mutex_);
  while (true) {
    ++idle_;
    queued_.wait(lock, [&] { return stopping_ || !jobs_.empty(); });
    --idle_;
    if (jobs_.empty()) return;  // stopping with nothing left
    std::shared_ptr<WriteJob> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    Finish(*job);
    lock.lock();
    job->done = true;
    if (waiting_) finished_.notify_all();
  }
}

}  // namespace pelmora::archive::internal

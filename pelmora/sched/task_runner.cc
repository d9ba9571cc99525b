// The runner's loop: one thread polls the folder's inotify descriptor, a wake-up eventfd and the
// exit and output descriptors of the runs in progress, with a time-out that ends at the next
// due run, retry or MaxRunTime deadline (at most a second).
#include "pelmora/sched/task_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/common/internal/platform.h"
#include "pelmora/platform/win_error.h"
#include "pelmora/sched/internal/file_io.h"
#include "pelmora/sched/task.h"
#include "pelmora/sched/task_execution.h"
#include "pelmora/sched/task_rules.h"
#include "pelmora/sched/task_store.h"
#include "pelmora/sched/trigger.h"

namespace pelmora::sched {
namespace {

constexpr char kSource[] = "TaskRunner";
constexpr int64_t kNever = INT64_MAX;

[[noreturn]] void RaiseErrno(int error) {
  int32_t number = platform::Win32FromErrno(error, platform::Missing::kPath);
  throw Error(number, DescribeError(number), kSource);
}

int64_t SystemClockMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// The runner locks this process holds. A child forked by any thread closes them first thing
// (from the fork handler, before its own code runs), so a child that outlives the process
// cannot keep the lock from the next runner; they are close-on-exec as well.
constexpr int kLockSlots = 8;
std::atomic<int> held_locks[kLockSlots];

void CloseLocksInChild() {
  for (std::atomic<int>& slot : held_locks) {
    int fd = slot.load(std::memory_order_relaxed);
    if (fd >= 0) close(fd);
  }
}

void RememberLock(int fd) {
  static std::once_flag registered;
  std::call_once(registered, [] {
    for (std::atomic<int>& slot : held_locks) slot.store(-1);
    pthread_atfork(nullptr, nullptr, &CloseLocksInChild);
  });
  for (std::atomic<int>& slot : held_locks) {
    int free = -1;
    if (slot.compare_exchange_strong(free, fd)) return;
  }
}

void ForgetLock(int fd) {
  for (std::atomic<int>& slot : held_locks) {
    int held = fd;
    if (slot.compare_exchange_strong(held, -1)) return;
  }
}

// Takes the exclusive lock, waiting at most `wait_ms` for another holder to let it go.
bool TakeLock(int fd, int wait_ms) {
  constexpr auto kStep = std::chrono::milliseconds(20);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kStep);
  }
  return true;
}

Date LocalDate(int64_t ms) { return Date::FromUnixTime(ms >= 0 ? ms / 1000 : (ms - 999) / 1000); }

bool IsJobName(const std::string& name) {
  return name.size() > 4 && strcasecmp(name.c_str() + name.size() - 4, ".job") == 0 &&
         CheckTaskFileName(name) == 0;
}

bool Enabled(const JobFile& job) {
  return (job.flags & static_cast<uint32_t>(TaskFlags::Disabled)) == 0;
}

bool HasStartTrigger(const JobFile& job) {
  for (const JobTrigger& t : UserTriggers(job)) {
    if (t.type == TriggerType::kAtSystemStart && (t.flags & kTriggerDisabled) == 0) return true;
  }
  return false;
}

}  // namespace

// What the runner knows of one task file.
struct TaskEntry {
  JobFile job;
  std::optional<Date> next;  // the next trigger run (local), nullopt for none
  int64_t retry_at = kNever;
  int retries_left = 0;
};

// One run in progress.
struct RunningTask {
  ChildProcess child;
  int64_t deadline = kNever;
  bool killed = false;
  bool output_open = true;
};

class TaskRunner::Loop {
 public:
  Loop(TaskRunnerOptions options, std::atomic<int>& started, std::atomic<int>& finished)
      : folder_(options.folder.empty() ? DefaultTasksFolder() : options.folder),
        clock_(options.clock_ms ? options.clock_ms : &SystemClockMs),
        run_at_start_(options.run_at_start),
        lock_wait_ms_(options.lock_wait_ms),
        started_(started),
        finished_(finished) {}

  ~Loop() {
    if (lock_fd_ >= 0) ForgetLock(lock_fd_);
    for (int fd : {inotify_fd_, wake_fd_, lock_fd_}) {
      if (fd >= 0) close(fd);
    }
  }

  void Open() {
    if (!pelmora::internal::CreateFolderPath(folder_ + "/")) RaiseErrno(errno);
    lock_fd_ = open(RunnerLockPath(folder_).c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
    if (lock_fd_ < 0) RaiseErrno(errno);
    RememberLock(lock_fd_);
    if (!TakeLock(lock_fd_, lock_wait_ms_)) throw Error(32, DescribeError(32), kSource);
    inotify_fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    wake_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (inotify_fd_ < 0 || wake_fd_ < 0) RaiseErrno(errno);
    uint32_t mask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CREATE;
    if (inotify_add_watch(inotify_fd_, folder_.c_str(), mask) < 0) RaiseErrno(errno);
    std::vector<std::string> names;
    OpenLocalTaskStore(folder_)->List(names);
    int64_t now = clock_();
    for (const std::string& name : names) Reload(name, now);
    if (!run_at_start_) return;
    for (auto& [name, entry] : entries_) {
      if (Enabled(entry.job) && HasStartTrigger(entry.job)) StartRun(name, now, true);
    }
  }

  void Run() {
    while (!stopping_.load()) {
      int64_t now = clock_();
      FireDue(now);
      std::vector<pollfd> fds = {{inotify_fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
      std::vector<std::string> order;
      for (auto& [name, run] : running_) {
        fds.push_back({run->child.exit_fd(), POLLIN, 0});
        fds.push_back({run->output_open ? run->child.output_fd() : -1, POLLIN, 0});
        order.push_back(name);
      }
      if (poll(fds.data(), fds.size(), Timeout(now)) < 0 && errno != EINTR) break;
      if (fds[0].revents != 0) ReadEvents();
      if (fds[1].revents != 0) Drain(wake_fd_);
      for (size_t i = 0; i < order.size(); ++i) ServiceRun(order[i], fds[2 + 2 * i + 1].revents);
    }
    KillAll();
  }

  void Wake() {
    uint64_t one = 1;
    ssize_t ignored = write(wake_fd_, &one, sizeof one);
    (void)ignored;
  }

  void RequestStop() {
    stopping_.store(true);
    Wake();
  }

 private:
  static void Drain(int fd) {
    char buffer[4096];
    while (read(fd, buffer, sizeof buffer) > 0) {
    }
  }

  void ReadEvents() {
    alignas(inotify_event) char buffer[8192];
    ssize_t n;
    while ((n = read(inotify_fd_, buffer, sizeof buffer)) > 0) {
      for (char* p = buffer; p < buffer + n;) {
        auto* event = reinterpret_cast<inotify_event*>(p);
        if (event->len > 0 && IsJobName(event->name)) Reload(event->name, clock_());
        p += sizeof(inotify_event) + event->len;
      }
    }
  }

  // Reads a task file again: new settings, and the requests it carries.
  void Reload(const std::string& name, int64_t now) {
    std::string bytes;
    std::optional<JobFile> job;
    if (internal::ReadWholeFile(folder_ + "/" + name, kMaxJobFileSize, bytes) == 0) {
      job = ParseJobFile(bytes);
    }
    if (!job) {
      entries_.erase(name);
      return;
    }
    TaskEntry& entry = entries_[name];
    entry.job = *job;
    Date after = std::max(LocalDate(now - 1000), DateOf(job->last_run));
    entry.next = Enabled(*job) ? NextRunOf(UserTriggers(*job), after) : std::nullopt;
    HandleRequests(name, job->flags, now);
  }

  void HandleRequests(const std::string& name, uint32_t flags, int64_t now) {
    auto running = running_.find(name);
    if ((flags & kTerminateRequestFlag) != 0) {
      if (running != running_.end()) Kill(*running->second);
      ClearRequests(folder_, name, kTerminateRequestFlag);
    }
    if ((flags & kRunRequestFlag) != 0) {
      if (running == running_.end()) {
        StartRun(name, now, true);  // clears the request as it marks the run
      } else {
        ClearRequests(folder_, name, kRunRequestFlag);
      }
    }
  }

  void FireDue(int64_t now) {
    for (auto& [name, entry] : entries_) {
      bool due = entry.next && entry.next->ToUnixTime() * 1000 <= now;
      bool retry = entry.retry_at <= now;
      if (!due && !retry) continue;
      if (due)
        entry.next =
            NextRunOf(UserTriggers(entry.job), std::max(*entry.next, LocalDate(now - 1000)));
      if (retry) entry.retry_at = kNever;
      if (running_.count(name) == 0 && (Enabled(entry.job) || retry)) StartRun(name, now, due);
    }
  }

  void StartRun(const std::string& name, int64_t now, bool fresh) {
    TaskEntry& entry = entries_[name];
    if (fresh) entry.retries_left = entry.job.error_retry_count;
    uint32_t start_error = 0;
    std::optional<ChildProcess> child =
        StartTaskRun(folder_, name, entry.job, LocalDate(now), start_error);
    ++started_;
    if (!child) return Finished(name, std::nullopt, false, now);
    auto run = std::make_unique<RunningTask>(RunningTask{std::move(*child)});
    if (auto limit = RunTimeLimit(entry.job)) run->deadline = now + *limit;
    running_[name] = std::move(run);
  }

  void ServiceRun(const std::string& name, short output_events) {
    RunningTask& run = *running_[name];
    if (output_events != 0) {
      char sink[4096];
      ssize_t n = read(run.child.output_fd(), sink, sizeof sink);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) run.output_open = false;
    }
    int64_t now = clock_();
    if (run.deadline <= now) Kill(run);
    std::optional<ChildExit> exit = run.child.TryReap();
    if (!exit) return;
    bool killed = run.killed;
    running_.erase(name);
    Finished(name, exit, killed, now);
  }

  void Finished(const std::string& name, std::optional<ChildExit> exit, bool killed, int64_t now) {
    bool remove = FinishTaskRun(folder_, name, exit, killed, LocalDate(now));
    auto it = entries_.find(name);
    bool failed = !exit || (!killed && (exit->signalled || exit->code != 0));
    if (it != entries_.end() && failed && it->second.retries_left > 0) {
      --it->second.retries_left;
      it->second.retry_at = now + int64_t{it->second.job.error_retry_interval} * 60000;
    } else if (remove) {
      DeleteTaskFiles(folder_, name);
    }
    ++finished_;  // after the file says so, for those who watch the counter
  }

  static void Kill(RunningTask& run) {
    run.child.KillTree();
    run.killed = true;
    run.deadline = kNever;
  }

  void KillAll() {
    int64_t now = clock_();
    for (auto& [name, run] : running_) {
      run->child.KillTree();
      FinishTaskRun(folder_, name, run->child.Wait(), true, LocalDate(now));
      ++finished_;  // after the file says so
    }
    running_.clear();
  }

  int Timeout(int64_t now) const {
    int64_t next = now + 1000;
    for (const auto& [name, entry] : entries_) {
      if (entry.next) next = std::min(next, entry.next->ToUnixTime() * 1000);
      next = std::min(next, entry.retry_at);
    }
    for (const auto& [name, run] : running_) next = std::min(next, run->deadline);
    return static_cast<int>(std::clamp<int64_t>(next - now, 0, 1000));
  }

  std::string folder_;
  std::function<int64_t()> clock_;
  bool run_at_start_;
  int lock_wait_ms_;
  std::atomic<int>& started_;
  std::atomic<int>& finished_;
  int inotify_fd_ = -1;
  int wake_fd_ = -1;
  int lock_fd_ = -1;
  std::atomic<bool> stopping_{false};
  std::map<std::string, TaskEntry> entries_;
  std::map<std::string, std::unique_ptr<RunningTask>> running_;
};

TaskRunner::TaskRunner(TaskRunnerOptions options) : options_(std::move(options)) {}

TaskRunner::~TaskRunner() { Stop(); }

void TaskRunner::Start() {
  if (loop_) return;
  runs_started_ = 0;
  runs_finished_ = 0;
  auto loop = std::make_unique<Loop>(options_, runs_started_, runs_finished_);
  loop->Open();
  loop_ = std::move(loop);
  thread_ = std::thread([this] { loop_->Run(); });
}

void TaskRunner::Stop() {
  if (!loop_) return;
  loop_->RequestStop();
  if (thread_.joinable()) thread_.join();
  loop_.reset();
}

void TaskRunner::Wake() {
  if (loop_) loop_->Wake();
}

}  // namespace pelmora::sched

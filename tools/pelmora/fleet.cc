#include "tools/pelmora/fleet.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>

#include "tools/pelmora/crypto_io.h"

namespace pelmora_tool {
namespace {

using Clock = std::chrono::steady_clock;

// Everything the host threads share. Records and the console are touched only under `mutex`
// and only while the run is not closed, so threads left behind by the overall time-out never
// reach them afterwards.
struct FleetState {
  FleetOptions options;
  HostRunner runner;
  Console* console = nullptr;
  bool live = true;  // lines printed as they come; otherwise output is kept for the reports
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<HostRecord> records;
  size_t next = 0;
  size_t done = 0;
  size_t failed = 0;
  bool closed = false;
  Clock::time_point start;
  std::string report_error;  // a report file that could not be written

  void ShowProgress() {
    console->Status(FormatFleet(done, records.size(), failed, Clock::now() - start));
  }
};

// Prints the reports due when a host ends, or is abandoned at the overall time-out: its group
// block, its --json object and its files in the output folder.
void ReportFinished(FleetState& s, const HostRecord& record) {
  if (s.options.group && !s.options.gather) {
    s.console->Out(GroupBlock(record));
    if (record.failure) s.console->Err(ErrorLine(record.target.Display(), *record.failure) + "\n");
  }
  if (s.options.json) s.console->Out(JsonLine(record));
  if (s.options.output_dir.empty()) return;
  try {
    WriteOutputFiles(s.options.output_dir, record);
  } catch (const CommandError& e) {
    if (s.report_error.empty()) s.report_error = e.what();
  }
}

class FleetHostOutput : public HostOutput {
 public:
  FleetHostOutput(std::shared_ptr<FleetState> state, size_t index)
      : state_(std::move(state)),
        index_(index),
        host_(state_->records[index].target.Display()),
        prefixer_(host_ + ": ") {}

  void Write(std::string_view text) override {
    std::lock_guard lock(state_->mutex);
    if (state_->closed) return;
    if (!state_->live) {
      state_->records[index_].output.append(text);
      return;
    }
    std::string lines = prefixer_.Feed(text);
    if (!lines.empty()) state_->console->Out(lines);
  }

  void RemoteStatus(std::optional<int> status) override {
    std::lock_guard lock(state_->mutex);
    if (state_->closed) return;
    state_->records[index_].remote_status = status;
    state_->records[index_].remote_status_unknown = !status;
  }

  void Fail(const HostFailure& failure) override {
    std::lock_guard lock(state_->mutex);
    if (state_->closed) return;
    state_->records[index_].failure = failure;
    if (state_->live || !state_->options.output_dir.empty()) {
      state_->console->Err(ErrorLine(host_, failure) + "\n");
    }
  }

  void PresentedFingerprint(std::string_view fingerprint) override {
    std::lock_guard lock(state_->mutex);
    if (!state_->closed) state_->records[index_].fingerprint = fingerprint;
  }

  void Step(std::string_view text) override {
    std::lock_guard lock(state_->mutex);
    if (!state_->closed) state_->console->Err("pelmora: " + host_ + ": " + std::string(text) + "\n");
  }

  // Records the host's end and prints the reports that are due now.
  void Finish(int status, double seconds) {
    std::lock_guard lock(state_->mutex);
    if (state_->closed) return;
    FleetState& s = *state_;
    HostRecord& record = s.records[index_];
    record.finished = true;
    record.status = status;
    record.seconds = seconds;
    if (s.live) {
      std::string rest = prefixer_.Flush();
      if (!rest.empty()) s.console->Out(rest);
    }
    ReportFinished(s, record);
    ++s.done;
    if (!record.Ok()) ++s.failed;
    s.ShowProgress();
    s.changed.notify_all();
  }

 private:
  std::shared_ptr<FleetState> state_;
  size_t index_;
  std::string host_;
  LinePrefixer prefixer_;
};

// A host thread: takes the next host until none is left or the run is closed.
void HostThread(std::shared_ptr<FleetState> state) {
  for (;;) {
    size_t index = 0;
    HostTarget target;
    {
      std::lock_guard lock(state->mutex);
      if (state->closed || state->next >= state->records.size()) return;
      index = state->next++;
      target = state->records[index].target;
    }
    FleetHostOutput output(state, index);
    Clock::time_point begin = Clock::now();
    int status = kExitFailed;
    try {
      status = state->runner(target, output);
    } catch (const std::exception& e) {
      output.Fail({0, e.what()});
    }
    output.Finish(status, std::chrono::duration<double>(Clock::now() - begin).count());
  }
}

// Waits for every host or the overall time-out; then closes the run and marks the hosts left.
size_t WaitAndClose(FleetState& s) {
  std::unique_lock lock(s.mutex);
  auto all_done = [&s] { return s.done == s.records.size(); };
  if (s.options.overall_timeout_ms > 0) {
    s.changed.wait_until(lock, s.start + std::chrono::milliseconds(s.options.overall_timeout_ms),
                         all_done);
  } else {
    s.changed.wait(lock, all_done);
  }
  s.closed = true;
  size_t abandoned = 0;
  for (HostRecord& record : s.records) {
    if (record.finished) continue;
    ++abandoned;
    record.status = kExitTimedOut;
    record.seconds = std::chrono::duration<double>(Clock::now() - s.start).count();
    ReportFinished(s, record);
  }
  return abandoned;
}

std::shared_ptr<FleetState> NewState(const FleetOptions& options, HostRunner runner,
                                     Console& console) {
  auto state = std::make_shared<FleetState>();
  state->options = options;
  state->runner = std::move(runner);
  state->console = &console;
  state->live = !options.group && !options.gather && !options.json && options.output_dir.empty();
  for (const HostTarget& target : options.hosts) {
    state->records.push_back({.target = target,
                              .port = target.port != 0 ? target.port : options.default_port});
  }
  state->start = Clock::now();
  return state;
}

}  // namespace

FleetOutcome RunFleet(const FleetOptions& options, HostRunner runner, Console& console) {
  if (!options.output_dir.empty()) {
    std::error_code error;
    std::filesystem::create_directories(options.output_dir, error);
    if (error) throw CommandError("cannot create " + options.output_dir + ": " + error.message());
  }
  std::shared_ptr<FleetState> state = NewState(options, std::move(runner), console);
  {
    std::lock_guard lock(state->mutex);
    state->ShowProgress();
  }
  size_t count = std::min<size_t>(std::max(options.parallel, 1), state->records.size());
  std::vector<std::thread> threads;
  for (size_t i = 0; i < count; ++i) threads.emplace_back(HostThread, state);
  FleetOutcome outcome;
  outcome.abandoned = WaitAndClose(*state);
  for (std::thread& thread : threads) {
    if (outcome.abandoned == 0) {
      thread.join();
    } else {
      thread.detach();
    }
  }
  console.Status("");
  {
    std::lock_guard lock(state->mutex);
    outcome.records = state->records;
  }
  double elapsed = std::chrono::duration<double>(Clock::now() - state->start).count();
  if (options.gather) console.Out(GatherBlocks(outcome.records));
  // On standard error, so that "> file" keeps only the hosts' output.
  if (!options.json && !options.quiet) {
    console.Err(SummaryTable(outcome.records, std::chrono::duration<double>(elapsed)));
  }
  if (!options.failed_file.empty()) WriteFailedFile(options.failed_file, outcome.records);
  if (!state->report_error.empty()) throw CommandError(state->report_error);
  outcome.status = std::all_of(outcome.records.begin(), outcome.records.end(),
                               [](const HostRecord& r) { return r.Ok(); })
                       ? kExitOk
                       : kExitFailed;
  return outcome;
}

}  // namespace pelmora_tool

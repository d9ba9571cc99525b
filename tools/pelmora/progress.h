// The tool's console and its progress bar.
//
// Console serialises everything the tool writes to standard output and standard error, so that
// the lines of several hosts never interleave within a line, and keeps one status line (the
// progress bar) at the bottom of standard error: a write clears it first and draws it again after.
// The bar is shown only when standard error is a terminal and --quiet was not given.
//
//   Console console(Console::StatusWanted(quiet));
//   TransferProgress bar(console, total_bytes);
//   bar.Update(bytes_so_far);      // redrawn at most ten times a second
//   bar.Finish();                  // the bar disappears
#ifndef TOOLS_PELMORA_PROGRESS_H_
#define TOOLS_PELMORA_PROGRESS_H_

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

namespace pelmora_tool {

class Console {
 public:
  // Writes to `out` and `err`; the status line is drawn on `err` only when `status_enabled`.
  explicit Console(bool status_enabled, std::FILE* out = stdout, std::FILE* err = stderr);

  // Whether a status line belongs on standard error: it is a terminal and not `quiet`.
  static bool StatusWanted(bool quiet);

  // Writes `text` to standard output / standard error and flushes it. Thread-safe.
  void Out(std::string_view text);
  void Err(std::string_view text);

  // Replaces the status line (nothing when the status line is off); "" removes it. Thread-safe.
  void Status(std::string_view line);

  bool StatusEnabled() const { return status_enabled_; }

 private:
  void Write(std::FILE* stream, std::string_view text);
  void Erase();
  void Draw();

  std::mutex mutex_;
  const bool status_enabled_;
  std::FILE* out_;
  std::FILE* err_;
  std::string status_;
};

// "0 B", "1.5 KiB", "12.0 MiB", ... (binary units, one decimal past bytes).
std::string FormatBytes(uint64_t bytes);

// The bar of a transfer: "[#######.............]  35%  3.5 MiB / 10.0 MiB  1.2 MiB/s  0:05 left".
// `total` 0 leaves out the percentage and the time left; a rate of 0 shows "--:-- left".
std::string FormatTransfer(uint64_t done, uint64_t total, std::chrono::duration<double> elapsed,
                           std::string_view label = {});

// The bar of a fleet run: "[####........] 12/40 hosts, 1 failed, 3.2 s".
std::string FormatFleet(std::size_t done, std::size_t total, std::size_t failed,
                        std::chrono::duration<double> elapsed);

// A transfer's bar on a console, fed with the byte counts the transfer reports.
class TransferProgress {
 public:
  TransferProgress(Console& console, uint64_t total, std::string label = {});
  ~TransferProgress();
  TransferProgress(const TransferProgress&) = delete;
  TransferProgress& operator=(const TransferProgress&) = delete;

  // Records `done` bytes; redraws when a tenth of a second has passed since the last drawing.
  void Update(uint64_t done);
  // Removes the bar.
  void Finish();

 private:
  Console& console_;
  uint64_t total_;
  std::string label_;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point drawn_;
};

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_PROGRESS_H_

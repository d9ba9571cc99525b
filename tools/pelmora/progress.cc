#include "tools/pelmora/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

namespace pelmora_tool {
namespace {

constexpr int kBarWidth = 20;
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

std::string Bar(double fraction) {
  int filled = static_cast<int>(std::clamp(fraction, 0.0, 1.0) * kBarWidth);
  return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "]";
}

std::string MinutesSeconds(double seconds) {
  auto whole = static_cast<long>(seconds + 0.5);
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

}  // namespace

Console::Console(bool status_enabled, std::FILE* out, std::FILE* err)
    : status_enabled_(status_enabled), out_(out), err_(err) {}

bool Console::StatusWanted(bool quiet) { return !quiet && isatty(STDERR_FILENO) == 1; }

void Console::Out(std::string_view text) { Write(out_, text); }

void Console::Err(std::string_view text) { Write(err_, text); }

void Console::Write(std::FILE* stream, std::string_view text) {
  std::lock_guard lock(mutex_);
  Erase();
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
  Draw();
}

void Console::Status(std::string_view line) {
  if (!status_enabled_) return;
  std::lock_guard lock(mutex_);
  Erase();
  status_ = line;
  Draw();
}

void Console::Erase() {
  if (status_.empty()) return;
  std::fputs("\r\033[K", err_);
  std::fflush(err_);
}

void Console::Draw() {
  if (status_.empty()) return;
  std::fputs(status_.c_str(), err_);
  std::fflush(err_);
}

std::string FormatBytes(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return fmt::format("{} B", bytes);
  double value = static_cast<double>(bytes) / 1024;
  int unit = 0;
  while (value >= 1024 && unit < 3) {
    value /= 1024;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string FormatTransfer(uint64_t done, uint64_t total, std::chrono::duration<double> elapsed,
                           std::string_view label) {
  double seconds = elapsed.count();
  double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  std::string line = label.empty() ? "" : std::string(label) + " ";
  if (total > 0) {
    double fraction = static_cast<double>(done) / static_cast<double>(total);
    line += fmt::format("{} {:3}%  ", Bar(fraction), static_cast<int>(fraction * 100));
  }
  line += FormatBytes(done);
  if (total > 0) line += " / " + FormatBytes(total);
  line += "  " + FormatBytes(static_cast<uint64_t>(rate)) + "/s";
  if (total > 0) {
    line += rate > 0 && done <= total
                ? "  " + MinutesSeconds(static_cast<double>(total - done) / rate) + " left"
                : std::string("  --:-- left");
  }
  return line;
}

std::string FormatFleet(std::size_t done, std::size_t total, std::size_t failed,
                        std::chrono::duration<double> elapsed) {
  double fraction = total > 0 ? static_cast<double>(done) / static_cast<double>(total) : 1.0;
  return fmt::format("{} {}/{} hosts, {} failed, {:.1f} s", Bar(fraction), done, total, failed,
                     elapsed.count());
}

TransferProgress::TransferProgress(Console& console, uint64_t total, std::string label)
    : console_(console),
      total_(total),
      label_(std::move(label)),
      start_(std::chrono::steady_clock::now()),
      drawn_(start_ - kRedrawInterval) {}

TransferProgress::~TransferProgress() { Finish(); }

void TransferProgress::Update(uint64_t done) {
  if (!console_.StatusEnabled()) return;
  auto now = std::chrono::steady_clock::now();
  if (now - drawn_ < kRedrawInterval && done != total_) return;
  drawn_ = now;
  console_.Status(FormatTransfer(done, total_, now - start_, label_));
}

void TransferProgress::Finish() { console_.Status(""); }

}  // namespace pelmora_tool

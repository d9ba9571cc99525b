#include "tools/pelmora/log_lines.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "pelmora/common/log.h"
#include "pelmora/common/system.h"
#include "pelmora/platform/log_layout.h"

namespace pelmora_tool {
namespace {

namespace fs = std::filesystem;
using pelmora::platform::LogFileName;
using pelmora::platform::LogKind;

constexpr size_t kStampLength = 19;  // "yyyy-mm-dd hh:nn:ss"

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The lines of one file, from at most its last kMostLogBytes (a cut first line is dropped).
void AppendLines(const fs::path& path, std::vector<std::string>& out) {
  std::error_code error;
  std::uintmax_t size = fs::file_size(path, error);
  std::ifstream file(path, std::ios::binary);
  if (error || !file) return;
  bool cut = size > kMostLogBytes;
  if (cut) file.seekg(static_cast<std::streamoff>(size - kMostLogBytes));
  std::string line;
  if (cut) std::getline(file, line);
  while (std::getline(file, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) out.push_back(line);
  }
}

// The day's files under `root`, in name order.
std::vector<fs::path> DayFiles(const std::string& root, const std::string& day, bool errors_only) {
  fs::path folder = pelmora::platform::LogMonthFolder(root, day);
  std::vector<fs::path> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    std::string name = entry.path().filename().string();
    if (EndsWith(name, LogFileName(day, LogKind::kError)) ||
        (!errors_only && EndsWith(name, LogFileName(day, LogKind::kInformation)))) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

void SortByStamp(std::vector<std::string>& lines) {
  std::stable_sort(lines.begin(), lines.end(), [](const std::string& a, const std::string& b) {
    return a.compare(0, kStampLength, b, 0, kStampLength) < 0;
  });
}

const char* Environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

}  // namespace

std::string ToolLogRoot() {
  if (const char* root = Environment("PELMORA_LOG_ROOT")) return root;
  std::string library = pelmora::LibraryFolder();
  std::error_code error;
  if (!library.empty() && fs::is_directory(library + "/../Log", error) &&
      access((library + "/../Log").c_str(), W_OK | X_OK) == 0) {
    return library + "/../Log";
  }
  std::string own = pelmora::UserLogRoot();
  return own.empty() ? pelmora::GetTempFolder() + "pelmora-log" : own;
}

std::string MakeToolCacheRoot() {
  std::string root;
  if (const char* cache = Environment("XDG_CACHE_HOME")) {
    root = std::string(cache) + "/pelmora";
  } else if (const char* home = Environment("HOME")) {
    root = std::string(home) + "/.cache/pelmora";
  } else {
    root = pelmora::GetTempFolder() + "pelmora-cache-" + std::to_string(getuid());
  }
  std::error_code error;
  fs::create_directories(root, error);
  chmod(root.c_str(), 0700);
  return root;
}

void MakeLogRoot(const std::string& root) {
  std::error_code error;
  fs::create_directories(root, error);
}

std::vector<std::string> DayLogLines(const std::string& root, const std::string& day,
                                     bool errors_only) {
  std::vector<std::string> lines;
  for (const fs::path& file : DayFiles(root, day, errors_only)) AppendLines(file, lines);
  SortByStamp(lines);
  return lines;
}

LogFollower::LogFollower(std::string root, bool errors_only, std::function<std::string()> today)
    : root_(std::move(root)), errors_only_(errors_only), today_(std::move(today)), day_(today_()) {}

std::vector<std::string> LogFollower::Poll() {
  std::vector<std::string> lines = ReadNew();
  std::string today = today_();
  if (today != day_) {
    day_ = today;
    read_.clear();
    std::vector<std::string> next = ReadNew();
    lines.insert(lines.end(), next.begin(), next.end());
  }
  return lines;
}

std::vector<std::string> LogFollower::ReadNew() {
  std::vector<std::string> lines;
  for (const fs::path& path : DayFiles(root_, day_, errors_only_)) {
    std::error_code error;
    std::uintmax_t size = fs::file_size(path, error);
    std::uintmax_t& read = read_[path.string()];
    if (error) continue;
    if (size < read) read = 0;  // shrunk or replaced: read it again
    bool cut = size - read > kMostLogBytes;
    if (cut) read = size - kMostLogBytes;
    std::ifstream file(path, std::ios::binary);
    if (!file || size == read) continue;
    file.seekg(static_cast<std::streamoff>(read));
    std::string text(static_cast<size_t>(size - read), '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(file.gcount()));
    size_t end = text.rfind('\n');
    if (end == std::string::npos) continue;
    read += end + 1;
    // A skipped stretch leaves the first line cut: drop it.
    for (size_t start = cut ? text.find('\n') + 1 : 0; start <= end;) {
      size_t stop = text.find('\n', start);
      std::string line = text.substr(start, stop - start);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (!line.empty()) lines.push_back(std::move(line));
      start = stop + 1;
    }
  }
  SortByStamp(lines);
  return lines;
}

}  // namespace pelmora_tool

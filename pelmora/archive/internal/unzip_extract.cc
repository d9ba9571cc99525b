// The unzip run's extraction side: safe names, overwrite rules, files and links.
#include <fmt/format.h>
#include <sys/stat.h>

#include <cstring>

#include "pelmora/archive/internal/unzip_run.h"

namespace pelmora::archive::internal {
namespace {

constexpr size_t kMaxLinkTarget = 4096;
constexpr int kMaxRenames = 8;
// Files up to this size are decoded into memory and finished on the write-behind workers, with at
// most kHeldBytes of decoded data and kHeldFiles files waiting at once.
constexpr uint64_t kWriteBehindLimit = uint64_t{8} << 20;
constexpr uint64_t kHeldBytes = uint64_t{64} << 20;
constexpr size_t kHeldFiles = 256;

// Turns lone line feeds into CR LF for text entries, across chunk boundaries.
class TextConverter {
 public:
  explicit TextConverter(bool active) : active_(active) {}
  std::span<const uint8_t> Convert(std::span<const uint8_t> data) {
    if (!active_) return data;
    converted_.clear();
    for (uint8_t byte : data) {
      if (byte == '\n' && last_ != '\r') converted_.push_back('\r');
      converted_.push_back(byte);
      last_ = byte;
    }
    return converted_;
  }

 private:
  bool active_;
  uint8_t last_ = 0;
  std::vector<uint8_t> converted_;
};

uint32_t FileMode(const EntryInfo& entry, uint32_t umask) {
  return entry.unix_mode_known ? entry.unix_mode & 0777 : 0666 & ~umask;
}

}  // namespace

std::string UnzipRun::Shown(const std::string& path) const {
  std::string dir = dcl_.extract_dir;
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir.empty() ? path : dir + "/" + path;
}

bool UnzipRun::ReportPath(PathStatus status, const std::string& path) {
  switch (status) {
    case PathStatus::kOk:
      return true;
    case PathStatus::kThroughLink:
      Print(fmt::format("warning:  {} lies behind a symbolic link; skipped\n", Shown(path)), 1);
      Note(kUnzipWarn);
      return false;
    case PathStatus::kNotFolder:
      Print(fmt::format("checkdir error:  a component of {} exists but is not directory\n"
                        "                 unable to process {}.\n", Shown(path), path), 1);
      Note(kUnzipErr);
      return false;
    case PathStatus::kSystemError:
      Print(fmt::format("error:  cannot create {}\n        {}\n", Shown(path),
                        std::strerror(errno)), 1);
      Note(kUnzipDisk);
      return false;
  }
  return false;
}

std::optional<std::string> UnzipRun::DecideOverwrite(const EntryInfo& entry, std::string path) {
  bool update = dcl_.extract_only_newer != 0 || dcl_.freshen != 0;
  for (int rename = 0; rename <= kMaxRenames; ++rename) {
    DrainIfPending(path);  // an earlier entry of the same name is finished first
    // Replacing without a question or a date to compare needs nothing of what is there.
    if (mode_ == OverwriteMode::kAlways && !update) return path;
    auto existing = folder_->Stat(path);
    if (!existing) return dcl_.freshen != 0 ? std::nullopt : std::optional(path);
    if (update && existing->st_mtime >= entry.mtime) {
      Print(fmt::format("Target file newer.\nSkipping {}\n", Shown(path)));
      return std::nullopt;
    }
    if (mode_ == OverwriteMode::kAlways) return path;
    if (mode_ == OverwriteMode::kNever) {
      Print(fmt::format("Target file exists.\nSkipping {}\n", Shown(path)));
      return std::nullopt;
    }
    std::string name = Shown(path);
    Drain();
    int answer = callbacks_.replace(name);
    if (answer == kReplaceNo) return std::nullopt;
    if (answer == kReplaceNone) mode_ = OverwriteMode::kNever;
    if (answer == kReplaceNone) return std::nullopt;
    if (answer == kReplaceAll) mode_ = OverwriteMode::kAlways;
    if (answer != kReplaceRename) return path;
    std::string shown_dir = Shown("");
    if (!shown_dir.empty() && name.rfind(shown_dir, 0) == 0) name.erase(0, shown_dir.size());
    path = SanitizeEntryName(name, false, false).path;
    if (path.empty()) return std::nullopt;
  }
  return std::nullopt;
}

void UnzipRun::ExtractEntry(const EntryInfo& entry, const std::string& password) {
  SafeName safe = SanitizeEntryName(entry.name, dcl_.honor_directories == 0,
                                    dcl_.space_to_underscore != 0);
  if (safe.stripped_absolute) {
    Print(fmt::format("warning:  stripped absolute path spec from {}\n", entry.name), 1);
    Note(kUnzipWarn);
  }
  if (safe.skipped_parent) {
    Print(fmt::format("warning:  skipped \"../\" path component(s) in {}\n", entry.name), 1);
    Note(kUnzipWarn);
  }
  if (safe.path.empty()) return;
  if (dcl_.to_stdout != 0) {
    if (safe.is_directory) return;
    Drain();
    DecodeResult result = DecodeEntry(archive_, entry, password, budget_, [&](auto data) {
      callbacks_.print({reinterpret_cast<const char*>(data.data()), data.size()});
      return true;
    });
    ReportDecode(entry, result, "");
    return;
  }
  if (safe.is_directory) {
    DrainIfPending(safe.path);
    if (!ReportPath(folder_->MakeFolder(safe.path), safe.path)) return;
    Print(fmt::format("   creating: {}/\n", Shown(safe.path)));
    folder_times_.emplace_back(safe.path, entry.mtime);
    return;
  }
  if (entry.unix_mode_known && S_ISLNK(entry.unix_mode)) {
    ExtractLink(entry, password, safe.path);
  } else {
    ExtractFile(entry, password, safe.path);
  }
}

void UnzipRun::ExtractFile(const EntryInfo& entry, const std::string& password,
                           const std::string& wanted) {
  auto path = DecideOverwrite(entry, wanted);
  if (!path) return;
  PathStatus status = PathStatus::kOk;
  auto target = folder_->PrepareFile(*path, FileMode(entry, folder_->Umask()), status);
  if (!target) {
    ReportPath(status, *path);
    return;
  }
  bool text = dcl_.convert_text != 0 && entry.text;
  std::string tag = dcl_.convert_text == 0 ? "" : text ? "[text]" : "[binary]";
  std::string prefix =
      fmt::format("{}: {}  {}", entry.method == ZIP_CM_STORE ? " extracting" : "  inflating",
                  PadName(Shown(*path)), tag);
  if (entry.size <= kWriteBehindLimit) {
    ExtractHeld(entry, password, std::move(*target), prefix, *path, text);
  } else {
    ExtractStreamed(entry, password, std::move(*target), prefix, *path, text);
  }
}

void UnzipRun::ExtractHeld(const EntryInfo& entry, const std::string& password, FileTarget target,
                           const std::string& prefix, const std::string& path, bool text) {
  ExpansionBudget before = budget_;
  DecodedBytes data;
  DecodeResult result = text ? DecodeText(entry, password, data)
                             : DecodeToMemory(archive_, entry, password, budget_, data);
  if (result.status != DecodeStatus::kOk) {
    // Reported as if the file had been created before its data was read, as a streamed one is:
    // one that cannot be created says so, and its data counts for nothing.
    auto file = PendingFile::Create(std::move(target));  // removed again at once
    if (!file) {
      budget_ = before;
      ReportPath(PathStatus::kSystemError, path);
      return;
    }
    Print(prefix);
    ReportDecode(entry, result, prefix);
    return;
  }
  if (!writer_) writer_.emplace(0);
  uint64_t bytes = data.size;
  auto job = writer_->Submit(std::move(target), std::move(data), FileMode(entry, folder_->Umask()),
                             entry.mtime);
  held_.push_back({.job = std::move(job), .name = entry.name, .prefix = prefix, .path = path,
                   .bytes = bytes});
  pending_paths_.insert(path);
  held_bytes_ += bytes;
  ++held_files_;
  DrainUntil(kHeldBytes, kHeldFiles);
}

DecodeResult UnzipRun::DecodeText(const EntryInfo& entry, const std::string& password,
                                  DecodedBytes& out) {
  TextConverter converter(true);
  std::vector<uint8_t> data;
  data.reserve(static_cast<size_t>(entry.size));
  DecodeResult result = DecodeEntry(archive_, entry, password, budget_, [&](auto piece) {
    std::span<const uint8_t> converted = converter.Convert(piece);
    data.insert(data.end(), converted.begin(), converted.end());
    return true;
  });
  out.size = data.size();
  out.data = std::make_unique_for_overwrite<uint8_t[]>(out.size);
  std::copy(data.begin(), data.end(), out.data.get());
  return result;
}

void UnzipRun::ExtractStreamed(const EntryInfo& entry, const std::string& password,
                               FileTarget target, const std::string& prefix,
                               const std::string& path, bool text) {
  auto file = PendingFile::Create(std::move(target));
  if (!file) {
    ReportPath(PathStatus::kSystemError, path);
    return;
  }
  Print(prefix);
  TextConverter converter(text);
  DecodeResult result = DecodeEntry(archive_, entry, password, budget_, [&](auto data) {
    return file->Write(converter.Convert(data));
  });
  if (!ReportDecode(entry, result, prefix)) return;
  if (!file->Commit(FileMode(entry, folder_->Umask()), entry.mtime)) {
    ReportDecode(entry, DecodeResult{DecodeStatus::kSinkFailed, 0, 0}, prefix);
    return;
  }
  Print("\n");
}

void UnzipRun::ExtractLink(const EntryInfo& entry, const std::string& password,
                           const std::string& wanted) {
  Drain();  // a link may replace or lead through what an earlier entry is writing
  std::string target;
  DecodeResult result = DecodeEntry(archive_, entry, password, budget_, [&](auto data) {
    target.append(reinterpret_cast<const char*>(data.data()), data.size());
    return target.size() <= kMaxLinkTarget;
  });
  if (!ReportDecode(entry, result, "    linking: " + Shown(wanted))) return;
  if (target.find('\0') != std::string::npos || !LinkStaysInside(wanted, target)) {
    Print(fmt::format("warning:  symbolic link {} -> {} points outside the extraction folder; "
                      "not created\n", Shown(wanted), target), 1);
    Note(kUnzipWarn);
    return;
  }
  auto path = DecideOverwrite(entry, wanted);
  if (!path) return;
  PathStatus status = PathStatus::kOk;
  if (!folder_->MakeLink(*path, target, status)) {
    if (status == PathStatus::kOk) status = PathStatus::kNotFolder;
    ReportPath(status, *path);
    return;
  }
  Print(fmt::format("    linking: {} -> {} \n", Shown(*path), target));
}

}  // namespace pelmora::archive::internal

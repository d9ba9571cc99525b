// The unzip run: passwords, testing, the return code and the test summary.
#include "pelmora/archive/internal/unzip_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace pelmora::archive::internal {
namespace {

// The per-mille saving of `compressed` against `size`, signed, as unzip computes it.
int Ratio(uint64_t size, uint64_t compressed) {
  if (size == 0) return 0;
  uint64_t denom = size > 2000000 ? size / 1000 : size;
  uint64_t scale = size > 2000000 ? 1 : 1000;
  if (size >= compressed) {
    return static_cast<int>((scale * (size - compressed) + denom / 2) / denom);
  }
  return -static_cast<int>((scale * (compressed - size) + denom / 2) / denom);
}

std::string MethodText(const EntryInfo& entry) {
  if (entry.method == ZIP_CM_STORE) return "Stored";
  if (entry.method == ZIP_CM_DEFLATE) {
    static constexpr char kLevels[] = {'N', 'X', 'F', 'S'};
    return std::string("Defl:") + kLevels[(entry.flags >> 1) & 3];
  }
  return fmt::format("Unk:{:03}", entry.method);
}

}  // namespace

std::string PadName(std::string_view name) { return fmt::format("{:<22}", name); }

ListedEntry MakeListedEntry(const EntryInfo& entry) {
  ListedEntry listed;
  listed.size = entry.size;
  listed.compressed = entry.compressed - (entry.encrypted && entry.compressed >= 12 ? 12 : 0);
  int ratio = Ratio(entry.size, listed.compressed);
  listed.compression_factor = static_cast<uint32_t>((std::abs(ratio) + 5) / 10);
  time_t t = static_cast<time_t>(entry.mtime);
  std::tm tm{};
  localtime_r(&t, &tm);
  listed.month = static_cast<uint32_t>(tm.tm_mon + 1);
  listed.day = static_cast<uint32_t>(tm.tm_mday);
  listed.year = static_cast<uint32_t>((tm.tm_year + 1900) % 100);
  listed.hour = static_cast<uint32_t>(tm.tm_hour);
  listed.minute = static_cast<uint32_t>(tm.tm_min);
  listed.name = entry.name;
  listed.method = MethodText(entry);
  listed.crc = entry.crc;
  listed.crypt = entry.encrypted ? 'E' : ' ';
  return listed;
}

UnzipRun::UnzipRun(const DecompressionControl& dcl, const UnzipCallbacks& callbacks,
                   zip_t* archive, ExpansionBudget budget)
    : dcl_(dcl), callbacks_(callbacks), archive_(archive), budget_(budget) {
  if (dcl.overwrite != 0) mode_ = OverwriteMode::kAlways;
  else if (dcl.prompt_to_overwrite == 0) mode_ = OverwriteMode::kNever;
}

void UnzipRun::Print(const std::string& text, int max_quiet) {
  if (dcl_.quiet > max_quiet) return;
  if (!draining_ && !held_.empty()) {
    held_.push_back({.text = text});
  } else {
    callbacks_.print(text);
  }
}

void UnzipRun::DrainUntil(uint64_t max_bytes, size_t max_files) {
  draining_ = true;
  while (!held_.empty() && (held_bytes_ > max_bytes || held_files_ > max_files)) {
    Held held = std::move(held_.front());
    held_.pop_front();
    if (!held.job) {
      callbacks_.print(held.text);
      continue;
    }
    held_bytes_ -= held.bytes;
    --held_files_;
    bool ok = writer_->Wait(*held.job);
    pending_paths_.erase(held.path);
    if (!held.job->created) {
      errno = held.job->create_error;
      ReportPath(PathStatus::kSystemError, held.path);
      continue;
    }
    Print(held.prefix);
    if (ok) {
      Print("\n");
    } else {
      EntryInfo entry;
      entry.name = held.name;
      ReportDecode(entry, DecodeResult{DecodeStatus::kSinkFailed, 0, 0}, held.prefix);
    }
  }
  // Only messages left: they go out now, as nothing holds them back any more.
  if (held_files_ == 0) {
    for (const Held& held : held_) callbacks_.print(held.text);
    held_.clear();
  }
  draining_ = false;
}

void UnzipRun::DrainIfPending(const std::string& path) {
  if (pending_paths_.empty()) return;
  // The file itself, or one being created where a folder of its path must be.
  for (size_t slash = path.find('/'); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (pending_paths_.contains(path.substr(0, slash))) return Drain();
  }
  if (pending_paths_.contains(path)) Drain();
}

void UnzipRun::Note(int code) { code_ = std::max(code_, code); }

int UnzipRun::Code() const {
  if (stopped_ || over_budget_) return code_;
  if (files_ > 0 && bad_passwords_ == files_) return kUnzipBadPassword;
  if (files_ > 0 && unsupported_ == files_) return kUnzipUnsupported;
  return code_;
}

bool UnzipRun::OpenFolder() {
  if (dcl_.test != 0 || dcl_.to_stdout != 0) return true;
  folder_ = ExtractionFolder::Open(dcl_.extract_dir);
  if (folder_) return true;
  Print(fmt::format("error:  cannot create extraction directory: {}\n", dcl_.extract_dir), 1);
  Note(kUnzipDisk);
  return false;
}

std::optional<std::string> UnzipRun::AskPassword(const EntryInfo& entry) {
  for (int attempt = 0; attempt < 3 && !cancel_all_ && callbacks_.password; ++attempt) {
    Drain();
    std::string answer;
    int rc = callbacks_.password(
        answer, attempt == 0 ? "Enter password for: " : "Password incorrect--reenter: ",
        entry.name);
    if (rc == kPasswordError) {
      Print("   skipping: " + PadName(entry.name) + "  unable to get password\n", 1);
      Note(kUnzipMem2);
      return std::nullopt;
    }
    if (rc == kPasswordCancelAll) cancel_all_ = true;
    if (rc != kPasswordEntered) break;
    if (PasswordFits(archive_, entry, answer)) return answer;
  }
  if (PasswordFits(archive_, entry, "")) return std::string();
  Print("   skipping: " + PadName(entry.name) + "  incorrect password\n", 1);
  ++bad_passwords_;
  Note(kUnzipWarn);
  return std::nullopt;
}

std::optional<std::string> UnzipRun::ResolvePassword(const EntryInfo& entry) {
  if (!entry.encrypted) return std::string();
  if (good_password_ && PasswordFits(archive_, entry, *good_password_)) return good_password_;
  auto password = AskPassword(entry);
  if (password && !password->empty()) good_password_ = password;
  return password;
}

bool UnzipRun::ProcessEntry(const EntryInfo& entry) {
  bool is_folder = !entry.name.empty() && entry.name.back() == '/';
  if (!is_folder) ++files_;
  if (entry.method != ZIP_CM_STORE && entry.method != ZIP_CM_DEFLATE) {
    Print(fmt::format("   skipping: {}  unsupported compression method {}\n", PadName(entry.name),
                      entry.method), 1);
    ++unsupported_;
    Note(kUnzipWarn);
    return true;
  }
  std::optional<std::string> password =
      is_folder ? std::optional<std::string>("") : ResolvePassword(entry);
  if (password) {
    if (dcl_.test != 0) TestEntry(entry, *password);
    else ExtractEntry(entry, *password);
  }
  if (over_budget_) {
    Drain();
    return false;
  }
  if (callbacks_.service) {
    Drain();
    if (callbacks_.service(entry.name, entry.size) != 0) {
      stopped_ = true;
      code_ = kUnzipCtrlC;
      return false;
    }
  }
  return true;
}

bool UnzipRun::ReportDecode(const EntryInfo& entry, const DecodeResult& result,
                            const std::string& prefix) {
  std::string where = dcl_.quiet == 0 ? std::string() : prefix;
  switch (result.status) {
    case DecodeStatus::kOk:
      return true;
    case DecodeStatus::kBadCrc:
      Print(fmt::format("{} bad CRC {:08x}  (should be {:08x})\n", where, result.crc, entry.crc),
            1);
      if (entry.encrypted) Print("    (may instead be incorrect password)\n", 1);
      Note(kUnzipErr);
      return false;
    case DecodeStatus::kBadData:
      Print(fmt::format("{}\n  error:  invalid compressed data to inflate {}\n", where,
                        entry.name), 1);
      Note(kUnzipErr);
      return false;
    case DecodeStatus::kOverBudget:
      Print(fmt::format("{}\nerror:  {} expands beyond the extraction limits ({} bytes, {} times "
                        "the archive); extraction stopped\n",
                        where, entry.name, budget_.max_total_bytes, budget_.max_ratio), 1);
      over_budget_ = true;
      Note(kUnzipBadErr);
      return false;
    case DecodeStatus::kSinkFailed:
      Print(fmt::format("{}\nerror:  write error (disk full?) for {}\n", where, entry.name), 1);
      Note(kUnzipDisk);
      return false;
  }
  return false;
}

void UnzipRun::TestEntry(const EntryInfo& entry, const std::string& password) {
  std::string prefix = "    testing: " + PadName(entry.name) + "  ";
  Print(prefix);
  DecodeResult result =
      DecodeEntry(archive_, entry, password, budget_, [](std::span<const uint8_t>) {
        return true;
      });
  if (ReportDecode(entry, result, prefix)) Print(" OK\n");
}

void UnzipRun::Finish(bool all_files) {
  Drain();
  for (auto it = folder_times_.rbegin(); it != folder_times_.rend(); ++it) {
    folder_->SetTime(it->first, it->second);
  }
  if (dcl_.test == 0 || stopped_) return;
  const std::string& zip = dcl_.zip_file_name;
  uint64_t tested = files_ - bad_passwords_;
  if (code_ != 0) {
    Print(fmt::format("At least one {}error was detected in {}.\n",
                      code_ == kUnzipWarn ? "warning-" : "", zip), 1);
  } else if (tested == 0) {
    Print(fmt::format("Caution:  zero files tested in {}.\n", zip), 1);
  } else if (all_files) {
    Print(fmt::format("No errors detected in compressed data of {}.\n", zip), 1);
  } else {
    Print(fmt::format("No errors detected in {} for the {} file{} tested.\n", zip, tested,
                      tested == 1 ? "" : "s"), 1);
  }
  if (bad_passwords_ > 0) {
    Print(fmt::format("{} file{} skipped because of incorrect password.\n", bad_passwords_,
                      bad_passwords_ == 1 ? "" : "s"), 1);
  }
}

}  // namespace pelmora::archive::internal

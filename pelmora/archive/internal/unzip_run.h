// One run of the unzip engine over an open archive: the per-entry work (test, extract, links,
// overwrite rules, passwords) and the counters that decide the final return code.
#ifndef PELMORA_ARCHIVE_INTERNAL_UNZIP_RUN_H_
#define PELMORA_ARCHIVE_INTERNAL_UNZIP_RUN_H_

#include <zip.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "pelmora/archive/internal/entry_decoder.h"
#include "pelmora/archive/internal/extraction_folder.h"
#include "pelmora/archive/internal/write_behind.h"
#include "pelmora/archive/internal/zip_fields.h"
#include "pelmora/archive/unzip_engine.h"

namespace pelmora::archive::internal {

// `name` left-aligned in 22 columns, as the unzip messages show names.
std::string PadName(std::string_view name);

// The ListedEntry the message callback receives for `entry`.
ListedEntry MakeListedEntry(const EntryInfo& entry);

class UnzipRun {
 public:
  UnzipRun(const DecompressionControl& dcl, const UnzipCallbacks& callbacks, zip_t* archive,
           ExpansionBudget budget);

  // Opens the extraction folder; false (after a message) when it cannot be opened.
  bool OpenFolder();
  // Tests or extracts one entry. False when the run must stop (abort or zip bomb); Code() then
  // holds the code to return.
  bool ProcessEntry(const EntryInfo& entry);
  // Restores folder times and prints the test summary. `all_files` is set when no names were
  // selected.
  void Finish(bool all_files);
  // Records `code` when it is more severe than the one so far.
  void Note(int code);
  // The return code so far.
  int Code() const;
  // Waits for the files still being written and delivers the messages held behind them, in
  // order. Called before anything else reaches the callbacks and before the run ends.
  void Drain() { DrainUntil(0, 0); }

 private:
  enum class OverwriteMode { kQuery, kAlways, kNever };

  // A message held back behind files still being written, or one such file with what its
  // outcome's message needs.
  struct Held {
    std::string text;
    std::shared_ptr<WriteJob> job;
    std::string name;    // the entry's name, for a failure's message
    std::string prefix;  // its extracting line, shown once the file could be created
    std::string path;
    uint64_t bytes = 0;  // held in memory until written
  };

  void Print(const std::string& text, int max_quiet = 0);
  std::optional<std::string> ResolvePassword(const EntryInfo& entry);
  std::optional<std::string> AskPassword(const EntryInfo& entry);
  void TestEntry(const EntryInfo& entry, const std::string& password);
  bool ReportDecode(const EntryInfo& entry, const DecodeResult& result, const std::string& prefix);
  void ExtractEntry(const EntryInfo& entry, const std::string& password);
  void ExtractFile(const EntryInfo& entry, const std::string& password, const std::string& path);
  void ExtractLink(const EntryInfo& entry, const std::string& password, const std::string& path);
  bool ReportPath(PathStatus status, const std::string& path);
  std::optional<std::string> DecideOverwrite(const EntryInfo& entry, std::string path);
  std::string Shown(const std::string& path) const;
  // A file decoded into memory and finished on the write-behind workers; its extracting line
  // waits for the outcome.
  void ExtractHeld(const EntryInfo& entry, const std::string& password, FileTarget target,
                   const std::string& prefix, const std::string& path, bool text);
  // Decodes a text entry converting its line ends, into memory.
  DecodeResult DecodeText(const EntryInfo& entry, const std::string& password, DecodedBytes& out);
  void ExtractStreamed(const EntryInfo& entry, const std::string& password, FileTarget target,
                       const std::string& prefix, const std::string& path, bool text);
  void DrainUntil(uint64_t max_bytes, size_t max_files);
  void DrainIfPending(const std::string& path);

  const DecompressionControl& dcl_;
  const UnzipCallbacks& callbacks_;
  zip_t* archive_;
  ExpansionBudget budget_;
  std::optional<ExtractionFolder> folder_;
  OverwriteMode mode_ = OverwriteMode::kQuery;
  int code_ = 0;
  bool stopped_ = false;
  bool over_budget_ = false;
  std::optional<std::string> good_password_;
  bool cancel_all_ = false;
  uint64_t files_ = 0;
  uint64_t bad_passwords_ = 0;
  uint64_t unsupported_ = 0;
  std::vector<std::pair<std::string, int64_t>> folder_times_;
  // Files being finished on the workers and the messages that wait for them, in entry order.
  std::optional<WriteBehind> writer_;
  std::deque<Held> held_;
  std::unordered_set<std::string> pending_paths_;
  uint64_t held_bytes_ = 0;
  size_t held_files_ = 0;
  bool draining_ = false;
};

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_UNZIP_RUN_H_

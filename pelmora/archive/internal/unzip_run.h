// One run of the unzip engine over an open archive: the per-entry work (test, extract, links,
// overwrite rules, passwords) and the counters that decide the final return code.
#ifndef PELMORA_ARCHIVE_INTERNAL_UNZIP_RUN_H_
#define PELMORA_ARCHIVE_INTERNAL_UNZIP_RUN_H_

#include <zip.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "pelmora/archive/internal/entry_decoder.h"
#include "pelmora/archive/internal/extraction_folder.h"
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

 private:
  enum class OverwriteMode { kQuery, kAlways, kNever };

  void Print(const std::string& text, int max_quiet = 0) const;
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
};

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_UNZIP_RUN_H_

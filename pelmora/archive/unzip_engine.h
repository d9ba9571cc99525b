// The unzip engine: extracts, tests or lists one archive as the unzip library did for the
// decompression control list it was given, with its messages, callbacks and return codes, and
// with safety rules of its own (nothing is written outside the extraction folder, files appear
// under their real names only when complete, memory stays bounded, zip bombs are stopped).
//
//   DecompressionControl dcl;
//   dcl.zip_file_name = "a.zip";
//   dcl.extract_dir = "out";
//   UnzipCallbacks callbacks;
//   callbacks.print = [](std::string_view text) { std::fputs(std::string(text).c_str(), stdout); return 0; };
//   callbacks.replace = [](std::string&) { return kReplaceNo; };
//   int rc = RunUnzip(dcl, callbacks);   // 0, or 1, 2, 3, 5, 9, 11, 50, 51, 80, 81, 82
#ifndef PELMORA_ARCHIVE_UNZIP_ENGINE_H_
#define PELMORA_ARCHIVE_UNZIP_ENGINE_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "pelmora/archive/archive_codes.h"
#include "pelmora/platform/export.h"

namespace pelmora::archive {

// The decompression control list: fifteen 32-bit fields and two strings, in record order.
struct PELMORA_API DecompressionControl {
  int32_t extract_only_newer = 0;   // -u
  int32_t space_to_underscore = 0;  // -s
  int32_t prompt_to_overwrite = 0;  // ask the replace callback for existing files
  int32_t quiet = 0;                // 0 all messages, 1 -q, 2 -qq
  int32_t to_stdout = 0;            // -c: file data goes through the print callback
  int32_t test = 0;                 // -t
  int32_t list = 0;                 // list through the message callback
  int32_t freshen = 0;              // -f
  int32_t comment_only = 0;         // -z: print the archive comment only
  int32_t honor_directories = 0;    // 0 junk folders, 1 keep them (2 is treated as 1)
  int32_t overwrite = 0;            // -o
  int32_t convert_text = 0;         // -a: LF to CR LF in text entries
  int32_t zipinfo = 0;              // not supported: lists as `list` does
  int32_t case_insensitive = 0;     // -C: match names without regard to case
  int32_t privilege = 0;            // Windows ACLs: ignored here
  std::string zip_file_name;
  std::string extract_dir;
};

// One entry as the message callback receives it during a listing.
struct PELMORA_API ListedEntry {
  uint64_t size = 0;              // uncompressed
  uint64_t compressed = 0;        // without the 12-byte encryption header
  uint32_t compression_factor = 0;
  uint32_t month = 0;             // date fields in month, day, year order
  uint32_t day = 0;
  uint32_t year = 0;              // two digits
  uint32_t hour = 0;
  uint32_t minute = 0;
  char case_char = ' ';
  std::string name;
  std::string method;             // "Stored", "Defl:N", ...
  uint32_t crc = 0;
  char crypt = ' ';               // 'E' when encrypted
};

// The callbacks; print and replace are required (without them the run returns 3).
struct PELMORA_API UnzipCallbacks {
  PrintCallback print;
  // Called for an existing file when asking: returns 100-106; for 105 writes the new name.
  std::function<int(std::string& name)> replace;
  PasswordCallback password;
  std::function<void(const ListedEntry&)> message;
  ServiceCallback service;
};

// Limits that stop an archive from expanding without bound.
struct PELMORA_API ExtractLimits {
  uint64_t max_total_bytes = uint64_t{1} << 40;  // all entries together
  double max_ratio = 1100;                       // bytes produced per byte of archive
  uint64_t ratio_floor = uint64_t{64} << 20;     // ratio checked only beyond this many bytes
};

// Names and patterns of entries to process (empty: all), and to leave out.
struct PELMORA_API EntrySelection {
  std::vector<std::string> include;
  std::vector<std::string> exclude;
};

// Runs one extraction, test or listing. Returns the unzip return code. Blocks on file I/O and
// on the callbacks.
PELMORA_API int RunUnzip(const DecompressionControl& dcl, const UnzipCallbacks& callbacks,
                         const EntrySelection& selection = {}, const ExtractLimits& limits = {});

}  // namespace pelmora::archive

#endif  // PELMORA_ARCHIVE_UNZIP_ENGINE_H_

// The zip engine: creates or updates an archive from a list of names as the zip library did for
// the option record it was given (add, update by time, freshen, recurse, root folder, junked
// paths, PKWARE encryption with the password callback, the "adding:" messages with their
// percentages, return codes 0-20). Entries are compressed in parallel on all cores and written
// in list order; each carries the Unix time (UT) and owner (ux) extra fields.
//
//   ZipOptions options;
//   options.recurse = 1;
//   ZipCallbacks callbacks;
//   callbacks.print = [](std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); return 0; };
//   int rc = RunZip(options, "a.zip", {"src"}, callbacks);   // 0, 12 "Nothing to do!", 18 ...
#ifndef PELMORA_ARCHIVE_ZIP_ENGINE_H_
#define PELMORA_ARCHIVE_ZIP_ENGINE_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "pelmora/archive/archive_codes.h"
#include "pelmora/platform/export.h"

namespace pelmora::archive {

// The zip option record: three strings, 28 flags and the level, in record order. Flags that
// have no meaning on this platform are kept and ignored (see docs/platform.md, "Archives").
struct PELMORA_API ZipOptions {
  std::string date;
  std::string root_dir;   // names are taken relative to it; a relative archive path too
  std::string temp_dir;
  int32_t temp = 0;
  int32_t suffix = 0;
  int32_t encrypt = 0;    // -e: ask the password callback, encrypt every file
  int32_t system = 0;     // -S: dot files are always included here
  int32_t volume = 0;
  int32_t no_extra = 0;   // -X: no UT and ux extra fields
  int32_t no_dir_entries = 0;
  int32_t exclude_date = 0;
  int32_t include_date = 0;
  int32_t verbose = 0;
  int32_t quiet = 0;      // -q: no "adding:" lines nor warnings
  int32_t crlf_to_lf = 0;
  int32_t lf_to_crlf = 0;
  int32_t junk_dir = 0;   // -j: store names without folders
  int32_t grow = 0;
  int32_t force = 0;
  int32_t move = 0;
  int32_t delete_entries = 0;
  int32_t update = 0;     // -u: add new files, replace entries only with newer files
  int32_t freshen = 0;    // -f: replace entries with newer files, add nothing
  int32_t junk_sfx = 0;
  int32_t latest_time = 0;
  int32_t comment = 0;    // -z: ask the comment callback for the archive comment
  int32_t offsets = 0;
  int32_t privilege = 0;
  int32_t encryption = 0;
  int32_t recurse = 0;    // 1 -r, 2 -R (treated as -r)
  int32_t repair = 0;
  char level = 0;         // '0'..'9'; anything else is '6'
};

// The callbacks; each may be empty.
struct PELMORA_API ZipCallbacks {
  PrintCallback print;
  // Edits the archive comment in place (only with ZipOptions::comment).
  std::function<int(std::string& comment)> comment;
  PasswordCallback password;
  ServiceCallback service;
};

// How the work is spread: worker threads (0: one per core) and the most bytes of input being
// compressed at once.
struct PELMORA_API ZipTuning {
  unsigned threads = 0;
  uint64_t window_bytes = uint64_t{64} << 20;
};

// Adds `names` (files, folders, glob patterns) to archive `zip_file_name`. Returns the zip
// return code. Blocks on file I/O and on the callbacks.
PELMORA_API int RunZip(const ZipOptions& options, const std::string& zip_file_name,
                       const std::vector<std::string>& names, const ZipCallbacks& callbacks,
                       const ZipTuning& tuning = {});

}  // namespace pelmora::archive

#endif  // PELMORA_ARCHIVE_ZIP_ENGINE_H_

// The list of files and folders a zip run adds: the caller's names with wildcards expanded by
// glob, folders recursed into, names made relative to the root folder and normalised as the zip
// program stores them.
#ifndef PELMORA_ARCHIVE_INTERNAL_ZIP_PLAN_H_
#define PELMORA_ARCHIVE_INTERNAL_ZIP_PLAN_H_

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

namespace pelmora::archive::internal {

// One file or folder to store.
struct PlanItem {
  std::string path;   // where to read it
  std::string name;   // the entry name (folders end with '/')
  struct stat st {};
  bool is_folder = false;
};

// What BuildPlan needs of the options.
struct PlanRules {
  std::string root;       // "" or the root folder without a trailing '/'
  bool recurse = false;
  bool junk_folders = false;
  bool folder_entries = true;
};

// The stored form of a relative name: backslashes to '/', leading "/" and "./" removed, and with
// `junk_folders` only the last component.
std::string StoredName(std::string_view name, bool junk_folders);

// Expands `names` into items in order, without duplicate entry names. Names that match nothing
// are appended to `unmatched`.
std::vector<PlanItem> BuildPlan(const std::vector<std::string>& names, const PlanRules& rules,
                                std::vector<std::string>& unmatched);

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_ZIP_PLAN_H_

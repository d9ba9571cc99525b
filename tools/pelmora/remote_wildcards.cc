#include "tools/pelmora/remote_wildcards.h"

namespace pelmora_tool {

bool HasWildcard(std::string_view path) {
  size_t last = path.find_last_of("\\/");
  std::string_view name = last == std::string_view::npos ? path : path.substr(last + 1);
  return name.find_first_of("*?") != std::string_view::npos;
}

bool WildcardMatch(std::string_view pattern, std::string_view name) {
  if (!name.empty() && name[0] == '.' && (pattern.empty() || pattern[0] != '.')) return false;
  // The classic greedy matcher: on a mismatch after a `*`, let the star take one more character.
  size_t p = 0, n = 0;
  size_t star = std::string_view::npos, star_name = 0;
  while (n < name.size()) {
    if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
      ++p;
      ++n;
    } else if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      star_name = n;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      n = ++star_name;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

WildcardPath SplitWildcardPath(std::string_view path) {
  size_t last = path.find_last_of("\\/");
  WildcardPath split;
  if (last == std::string_view::npos) {
    // "C:*.log" is read from the drive's root, as the service reads a path without a separator.
    bool drive = path.size() >= 2 && path[1] == ':';
    split.prefix = drive ? std::string(path.substr(0, 2)) + "\\" : "";
    split.pattern = std::string(path.substr(drive ? 2 : 0));
  } else {
    split.prefix = std::string(path.substr(0, last + 1));
    split.pattern = std::string(path.substr(last + 1));
  }
  // The listing request takes a folder without its trailing separator, except a drive's root.
  split.folder = split.prefix;
  if (split.folder.size() > 3) split.folder.pop_back();
  return split;
}

int ExpandRemote(HostSession& session, const std::vector<std::string>& paths,
                 std::vector<std::string>& expanded) {
  expanded.clear();
  for (const std::string& path : paths) {
    if (!HasWildcard(path)) {
      expanded.push_back(path);
      continue;
    }
    WildcardPath split = SplitWildcardPath(path);
    pelmora::admin::RCFileInfoCollection entries = session.Fso().GetFolderFiles(split.folder);
    if (session.Fso().ErrCode() != 0) return session.FailOnPath(kExitFailed, split.folder);
    size_t before = expanded.size();
    for (const auto& entry : entries) {
      if (WildcardMatch(split.pattern, entry->FileName())) {
        expanded.push_back(split.prefix + entry->FileName());
      }
    }
    if (expanded.size() == before) {
      return session.Fail(kExitFailed, {0, "no matches found: " + path});
    }
  }
  return kExitOk;
}

}  // namespace pelmora_tool

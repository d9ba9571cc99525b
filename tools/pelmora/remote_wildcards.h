// Wildcards in server paths, expanded by the tool: the service takes every name literally, so a
// `*` or `?` in the last component of a path ("C:\logs\*.log") is matched against a listing of
// its folder, as the shell expands local names. Names are matched byte for byte, case-sensitive,
// as the service's drives compare them; `*` is any run of characters, `?` one character, and a
// leading "." is matched only by a pattern that begins with one (as the shell does). Brackets and
// wildcards in earlier components are ordinary characters.
//
//   std::vector<std::string> paths;
//   if (int status = ExpandRemote(session, {"C:\\logs\\*.log"}, paths); status != kExitOk) {
//     return status;  // "no matches found: C:\logs\*.log", or why the folder cannot be listed
//   }
#ifndef TOOLS_PELMORA_REMOTE_WILDCARDS_H_
#define TOOLS_PELMORA_REMOTE_WILDCARDS_H_

#include <string>
#include <string_view>
#include <vector>

#include "tools/pelmora/admin_session.h"

namespace pelmora_tool {

// Whether the last component of the server path `path` holds a `*` or a `?`.
bool HasWildcard(std::string_view path);

// Whether `name` matches `pattern` (see above). Runs in time proportional to the product of their
// lengths at most.
bool WildcardMatch(std::string_view pattern, std::string_view name);

// A path with a wildcard taken apart: "C:\logs\*.log" gives the folder to list "C:\logs", the
// prefix of the matches' paths "C:\logs\" and the pattern "*.log".
struct WildcardPath {
  std::string folder;
  std::string prefix;
  std::string pattern;
};
WildcardPath SplitWildcardPath(std::string_view path);

// `paths` with each path that has a wildcard replaced by the paths of the matching entries of its
// folder, in the listing's order; written to `expanded`. A pattern that matches nothing is a
// failure ("no matches found: PATH") reported on the session, as is a folder that cannot be
// listed; returns the exit status. Blocks for one listing per pattern.
int ExpandRemote(HostSession& session, const std::vector<std::string>& paths,
                 std::vector<std::string>& expanded);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_REMOTE_WILDCARDS_H_

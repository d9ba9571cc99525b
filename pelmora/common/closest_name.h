// The "did you mean" of every name a user types: a command-line flag or command, a key of the
// service's configuration file, a key of the tool's defaults file.
//
//   ClosestName("comands", {"commands", "tasks"});   // "commands"
//   ClosestName("xyz", {"commands", "tasks"});       // ""
#ifndef PELMORA_COMMON_CLOSEST_NAME_H_
#define PELMORA_COMMON_CLOSEST_NAME_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/platform/export.h"

namespace pelmora {

// The number of single-character insertions, deletions and replacements between `a` and `b`.
PELMORA_API std::size_t EditDistance(std::string_view a, std::string_view b);

// The candidate closest to `word`: one edit away in names of up to three letters, two in longer
// ones, or a name `word` begins; leading dashes are not compared ("--hots" is near "--hosts").
// "" when none is that near.
PELMORA_API std::string ClosestName(std::string_view word,
                                    const std::vector<std::string>& candidates);

}  // namespace pelmora

#endif  // PELMORA_COMMON_CLOSEST_NAME_H_

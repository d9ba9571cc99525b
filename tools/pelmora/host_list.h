// Host lists of the fleet commands: `--hosts` text and hosts files, with the ranges that
// administrators know from parallel shells.
//
//   ParseHostList("web[01-03],db[1-2,7]:8003")
//     // web01 web02 web03 db1:8003 db2:8003 db7:8003
//   ReadHostsFile("fleet.txt")   // one host expression a line, '#' starts a comment
//   FoldHostNames({"web01", "web02", "web03", "db7"})   // "web[01-03],db7"
//
// A host expression is a name with any number of bracketed ranges (`rack[1-2]-n[1-4]` gives
// every combination) and an optional `:port`. A range lists numbers and spans separated by
// commas; a span's width is that of its first number, so `[01-10]` pads to two digits. Commas
// and blanks outside brackets separate expressions. Duplicates are dropped, the first occurrence kept.
#ifndef TOOLS_PELMORA_HOST_LIST_H_
#define TOOLS_PELMORA_HOST_LIST_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace pelmora_tool {

// One administration service to reach: a host name or dotted address and a port (0: the port
// the command line gives for every host).
struct HostTarget {
  std::string name;
  int32_t port = 0;

  // "name", or "name:port" when the expression gave a port.
  std::string Display() const;
  friend bool operator==(const HostTarget&, const HostTarget&) = default;
};

// The most hosts one list may expand to; longer lists are refused.
inline constexpr std::size_t kMaxHosts = 100000;

// Expands a list of host expressions separated by commas or blanks. Throws CommandError with a one-line reason
// for an unbalanced bracket, an empty or reversed range, a number over nine digits, a bad port,
// an empty name or more than kMaxHosts hosts. Blank entries are skipped.
std::vector<HostTarget> ParseHostList(std::string_view text);

// Reads a hosts file: one or more host expressions a line, '#' starts a comment, blank lines are
// skipped. Throws CommandError when the file cannot be read, or for a bad expression (the message
// names the file and line).
std::vector<HostTarget> ReadHostsFile(const std::string& path);

// Appends `more` to `hosts`, dropping those already there. Throws CommandError past kMaxHosts.
void MergeHosts(std::vector<HostTarget>& hosts, const std::vector<HostTarget>& more);

// The shortest range form of a set of host names: names that differ only in their last number
// are folded into one bracketed range ("web01,web02,web03" -> "web[01-03]"), keeping the order
// of first appearance. Never fails.
std::string FoldHostNames(const std::vector<std::string>& names);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_HOST_LIST_H_

// Command-line mistakes reported the way the rest of the tool reports errors: one
// "pelmora: ..." line naming the command, with a "did you mean" for a near miss, the list of
// commands when one is missing or unknown, and a hint to put a command's own flags after "--".
//
//   try { app.parse(argc, argv); }
//   catch (const CLI::ParseError& e) { return ReportParseError(app, e); }
#ifndef TOOLS_PELMORA_PARSE_ERRORS_H_
#define TOOLS_PELMORA_PARSE_ERRORS_H_

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace pelmora_tool {

// The text of a parse error of `app` (after a failed parse, which marks the commands it got to):
// "pelmora: ..." lines, each ending in a line end. "" for a help or version request and for a
// CLI::RuntimeError (thrown by an option that printed its own reason).
std::string DescribeParseError(const CLI::App& app, const CLI::ParseError& error);

// `pelmora help [COMMAND...]`: the help of the tool or of the command the words name, as
// `pelmora COMMAND... --help` prints it; an unknown word is an error with the commands there.
void AddHelpCommand(CLI::App& app, std::function<int()>& action);

// Prints a help or version request on standard output (status 0) or the described error on
// standard error (status 2); returns that status (a RuntimeError's own status).
int ReportParseError(const CLI::App& app, const CLI::ParseError& error);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_PARSE_ERRORS_H_

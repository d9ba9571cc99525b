// The subcommand families of the pelmora command-line tool. Each Add*Command function registers
// its subcommands on the application; the one the command line selects stores its work in
// `action`, which main runs after parsing (its result is the process exit status).
#ifndef TOOLS_PELMORA_COMMANDS_H_
#define TOOLS_PELMORA_COMMANDS_H_

#include <CLI/CLI.hpp>
#include <functional>

namespace pelmora_tool {

// The work of the selected subcommand; returns the exit status.
using CommandAction = std::function<int()>;

// `pelmora demo [--log-root DIR]`: writes the day's logs under a log root and runs a WinSock
// exchange with a loopback peer in the same process.
void AddDemoCommand(CLI::App& app, CommandAction& action);

// The demo with its default log root (what `pelmora` with no command runs).
int RunDefaultDemo();

// `pelmora crypto keygen|encrypt|decrypt|sign|verify|hash|random|hex|unhex`: the Crypto object
// on files and standard streams.
void AddCryptoCommand(CLI::App& app, CommandAction& action);

// `pelmora sql CONNECTION "statement" [--csv|--json]`: runs one statement through SQLDB and
// prints its rows as an aligned table, CSV or JSON.
void AddSqlCommand(CLI::App& app, CommandAction& action);

// `pelmora tasks list|show|create|set|run|stop|rm [--computer \\host]`: the scheduled tasks.
void AddTasksCommand(CLI::App& app, CommandAction& action);

// `pelmora zip ...` and `pelmora unzip ...`: the archive engines with the Info-ZIP programs'
// usual flags; the exit status is the engine's return code.
void AddZipCommand(CLI::App& app, CommandAction& action);

// `pelmora http get|head|post|put URL [-o FILE] [-H LINE]... [-d DATA|@FILE]`: requests
// through the WinINet object.
void AddHttpCommand(CLI::App& app, CommandAction& action);

// `pelmora admin [global options] COMMAND ...`: the administration service of one host
// (--host) or of a fleet (--hosts, --hosts-file); see `pelmora admin --help`.
void AddAdminCommand(CLI::App& app, CommandAction& action);

// `pelmora log tail [--root DIR] [-n LINES] [--date YYYYMMDD] [--errors]`: the day's log lines
// of the library, in time order.
void AddLogCommand(CLI::App& app, CommandAction& action);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_COMMANDS_H_

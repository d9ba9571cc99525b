// pelmora: the command-line tool over the library's public classes.
//
//   pelmora [demo [--log-root DIR]]     the demonstration (also with no command at all)
//   pelmora crypto SUBCOMMAND ...       keys, encryption, signatures, hashes (see --help)
//   pelmora tasks SUBCOMMAND ...        scheduled tasks: list, show, create, set, run, stop, rm
//   pelmora zip|unzip ...               zip archives (exit status: the archive return code)
//   pelmora http get|head|post|put URL  HTTP and HTTPS requests (see --help)
//   pelmora admin [OPTIONS] COMMAND ... the administration service of a host or a fleet
//   pelmora log tail [--root DIR]       the day's log lines of the library
//
// Exit status: 0 on success, 2 for a usage error; each command documents its other values.
#include <CLI/CLI.hpp>

#include "tools/pelmora/commands.h"
#include "tools/pelmora/parse_errors.h"

int main(int argc, char** argv) {
  CLI::App app{"pelmora: the command-line tool over the Pelmora library", "pelmora"};
  app.require_subcommand(0, 1);
  app.set_version_flag("--version", std::string("pelmora ") + PELMORA_VERSION + " (commit " +
                                        PELMORA_COMMIT + ", " + PELMORA_BUILD_TYPE + " build)");
  pelmora_tool::CommandAction action;
  pelmora_tool::AddDemoCommand(app, action);
  pelmora_tool::AddCryptoCommand(app, action);
  pelmora_tool::AddSqlCommand(app, action);
  pelmora_tool::AddTasksCommand(app, action);
  pelmora_tool::AddZipCommand(app, action);
  pelmora_tool::AddHttpCommand(app, action);
  pelmora_tool::AddAdminCommand(app, action);
  pelmora_tool::AddLogCommand(app, action);
  pelmora_tool::AddHelpCommand(app, action);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return pelmora_tool::ReportParseError(app, error);
  }
  return action ? action() : pelmora_tool::RunDefaultDemo();
}

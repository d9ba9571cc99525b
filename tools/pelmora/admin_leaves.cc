// The commands of `pelmora admin`: each binds its arguments to one request of admin_requests.h.
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/pelmora/admin_cli.h"
#include "tools/pelmora/admin_requests.h"
#include "tools/pelmora/admin_transfers.h"
#include "tools/pelmora/log_lines.h"
#include "tools/pelmora/remote_wildcards.h"

namespace pelmora_tool {
namespace {

constexpr const char* kExecStatusHelp = R"(Exit status, as ssh gives it: the command's own status (0-255; 128 + N when
signal N ended it). When pelmora itself fails (usage, access code, connection, login, the
command could not start or ran out of time, or the service cannot report the status) it exits
with 255 and prints "pelmora: HOST: NUMBER TEXT" on standard error; a command that exits with
255 itself prints no such line. Fleet runs report each host's status in the table and in
--json ("remote_status"), where pelmora's own failures keep their numbers (2 usage, 3
connection, 4 not started, 6 timed out) and are never a remote status.
Standard input is forwarded when it is not a terminal (not in fleet runs); -n turns it off.)";

using OneArgument = int (*)(HostSession&, const std::string&);
using TwoArguments = int (*)(HostSession&, const std::string&, const std::string&);

// A command without arguments.
void AddPlain(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli,
              const std::string& name, const std::string& help, int (*run)(HostSession&)) {
  AddAdminLeaf(
      admin, action, cli, name, help, [run](const LeafArgs&) { return HostRequest(run); },
      std::make_shared<LeafArgs>());
}

// A command with one required argument; returns it for its own options.
CLI::App* AddOne(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli,
                 const std::string& name, const std::string& argument, const std::string& help,
                 OneArgument run, std::shared_ptr<LeafArgs> args = std::make_shared<LeafArgs>()) {
  CLI::App* leaf = AddAdminLeaf(
      admin, action, cli, name, help,
      [run](const LeafArgs& a) {
        return [run, first = a.first](HostSession& s) { return run(s, first); };
      },
      args);
  leaf->add_option(argument, args->first, argument + " on the server")->required();
  return leaf;
}

// A command with one argument and a flag that chooses `flagged` over `plain`.
void AddWithFlag(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli,
                 const std::string& name, const std::string& argument, const std::string& help,
                 std::pair<std::string, std::string> flag, OneArgument plain,
                 OneArgument flagged) {
  auto args = std::make_shared<LeafArgs>();
  CLI::App* leaf = AddAdminLeaf(
      admin, action, cli, name, help,
      [plain, flagged](const LeafArgs& a) {
        return [run = a.recursive ? flagged : plain, first = a.first](HostSession& s) {
          return run(s, first);
        };
      },
      args);
  leaf->add_flag(flag.first, args->recursive, flag.second);
  leaf->add_option(argument, args->first, argument + " on the server")->required();
}

// Runs `remove` on every path `pattern` expands to; the first failure's status, else 0.
int RemoveEach(HostSession& session, const std::string& pattern, OneArgument remove) {
  std::vector<std::string> paths;
  if (int status = ExpandRemote(session, {pattern}, paths); status != kExitOk) return status;
  int first_failure = kExitOk;
  for (const std::string& path : paths) {
    int status = remove(session, path);
    if (first_failure == kExitOk) first_failure = status;
  }
  return first_failure;
}

int RemoveMatches(HostSession& session, const std::string& pattern) {
  return RemoveEach(session, pattern, RemoveFile);
}

int RemoveTreeMatches(HostSession& session, const std::string& pattern) {
  return RemoveEach(session, pattern, RemoveTree);
}

// A command with a source and a target.
void AddTwo(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli,
            const std::string& name, const std::string& help, TwoArguments run) {
  auto args = std::make_shared<LeafArgs>();
  CLI::App* leaf = AddAdminLeaf(
      admin, action, cli, name, help,
      [run](const LeafArgs& a) {
        return [run, a](HostSession& s) { return run(s, a.first, a.second); };
      },
      args);
  leaf->add_option("SRC", args->first, "Existing path on the server")->required();
  leaf->add_option("DST", args->second, "New path on the server")->required();
}

void AddExec(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli) {
  auto args = std::make_shared<LeafArgs>();
  args->timeout_ms = 0;
  CLI::App* leaf = AddAdminLeaf(
      admin, action, cli, "exec",
      "Run a command on the host; its output streams as it comes, and pelmora exits with its "
      "status",
      [](const LeafArgs& a) {
        ExecArgs exec{a.words, a.timeout_ms, !a.no_input && ::isatty(0) == 0};
        return [exec](HostSession& s) { return Exec(s, exec); };
      },
      args, true);
  leaf->add_option("--timeout", args->timeout_ms, "The command's time-out, in ms (0: none)")
      ->capture_default_str()
      ->check(CLI::Range(0, 2147482647));
  leaf->add_flag("-n", args->no_input, "Do not forward standard input to the command");
  leaf->add_option("COMMAND", args->words,
                   "One word: a command line for the service's shell (quote it); several words "
                   "(after --): a program and its arguments, run without a shell")
      ->required();
  leaf->footer(kExecStatusHelp);
}

void AddCopy(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli) {
  auto args = std::make_shared<LeafArgs>();
  CLI::App* leaf = AddAdminLeaf(
      admin, action, cli, "cp", "Copy a file, or with -r a folder, on the server",
      [](const LeafArgs& a) {
        return [a](HostSession& s) { return Copy(s, a.first, a.second, a.recursive, a.overwrite); };
      },
      args);
  leaf->add_flag("-r,--recursive", args->recursive, "Copy a folder with its contents");
  leaf->add_flag("-f,--force", args->overwrite, "Replace an existing target");
  leaf->add_option("SRC", args->first, "Existing file or folder on the server")->required();
  leaf->add_option("DST", args->second, "New file or folder on the server")->required();
}

void AddTouch(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli) {
  auto args = std::make_shared<LeafArgs>();
  CLI::App* leaf = AddAdminLeaf(
      admin, action, cli, "touch", "Create an empty file on the server; an existing file is left as it is",
      [](const LeafArgs& a) {
        return [a](HostSession& s) { return Touch(s, a.first, a.unicode); };
      },
      args);
  leaf->add_flag("--unicode", args->unicode, "Create a UTF-16 text file");
  // Accepted for old scripts: an existing file is never emptied.
  leaf->add_flag("-f,--force", args->overwrite)->group("");
  leaf->add_option("PATH", args->first, "File on the server")->required();
}

void AddAppRoot(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli) {
  auto args = std::make_shared<LeafArgs>();
  CLI::App* leaf = AddAdminLeaf(
      admin, action, cli, "approot", "The application's root folder on the server",
      [](const LeafArgs& a) {
        return [product = a.first](HostSession& s) { return AppRoot(s, product); };
      },
      args);
  leaf->add_option("--product", args->first, "qel or vorin")
      ->required()
      ->check(CLI::IsMember({"qel", "vorin"}, CLI::ignore_case));
}

void AddList(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli) {
  auto args = std::make_shared<LeafArgs>();
  CLI::App* leaf = AddAdminLeaf(
      admin, action, cli, "ls",
      "List a folder on the server (a * or ? in the last name lists the matching entries)",
      [](const LeafArgs& a) {
        return [a](HostSession& s) {
          return ListFolder(s, a.first, a.long_form, a.human, a.json);
        };
      },
      args);
  // -h is a size form here, as in ls -lh; help is --help.
  leaf->set_help_flag("--help", "Print this help message and exit");
  leaf->add_flag("-l", args->long_form, "Attributes, size and last-write time too");
  leaf->add_flag("-h,--human-readable", args->human, "Sizes as 1.5K, 20M, ... with -l");
  leaf->add_flag("--json", args->json, "One line: a JSON array of the entries' records");
  leaf->add_option("FOLDER", args->first, "Folder on the server")->required();
}

void AddStat(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli) {
  auto args = std::make_shared<LeafArgs>();
  CLI::App* leaf = AddAdminLeaf(
      admin, action, cli, "stat", "Information on a file or folder",
      [](const LeafArgs& a) { return [a](HostSession& s) { return Stat(s, a.first, a.json); }; },
      args);
  leaf->add_flag("--json", args->json,
                 "One line: a JSON record (name, path, folder, type, size, attributes, times)");
  leaf->add_option("PATH", args->first, "File or folder on the server")->required();
}

void AddGet(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli) {
  auto args = std::make_shared<LeafArgs>();
  CLI::App* leaf = AddAdminLeaf(
      admin, action, cli, "get", "Download files (fleet: into LOCAL/<host>/)",
      [](const LeafArgs& a) {
        return [a](HostSession& s) {
          if (a.words.size() == 1) return GetAll(s, a.words, "", a.resume, a.recursive);
          std::vector<std::string> sources(a.words.begin(), a.words.end() - 1);
          return GetAll(s, sources, a.words.back(), a.resume, a.recursive);
        };
      },
      args);
  leaf->add_flag("-C,--resume", args->resume,
                 "Keep a local file that already has the remote file's size and write time; "
                 "else complete the .NAME.pelmora-part an interrupted get -C left, when the "
                 "remote file has not changed since");
  leaf->add_flag("-r,--recursive", args->recursive, "Download folders with everything in them");
  leaf->add_option("PATHS", args->words,
                   "Files on the server (a * or ? in the last name takes every match), then a "
                   "local file or folder (several files: an existing folder), - for standard "
                   "output (default: the remote name here)")
      ->required();
}

void AddPut(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli) {
  auto args = std::make_shared<LeafArgs>();
  CLI::App* leaf = AddAdminLeaf(
      admin, action, cli, "put", "Upload files",
      [](const LeafArgs& a) {
        return [a](HostSession& s) {
          std::vector<std::string> sources(a.words.begin(), a.words.end() - 1);
          return PutAll(s, sources, a.words.back(), a.recursive);
        };
      },
      args);
  leaf->add_flag("-r,--recursive", args->recursive, "Upload folders with everything in them");
  leaf->add_option("PATHS", args->words,
                   "Local files (- for standard input), then the file or folder on the server "
                   "(ending in \\: that folder; several files need a folder)")
      ->required()
      ->expected(2, -1);
  leaf->footer("Examples:\n  pelmora admin --host server put *.txt 'C:\\data\\'\n"
               "  tar czf - site | pelmora admin --host server put - 'C:\\backup\\site.tgz'");
}

}  // namespace

void AddAdminLeaves(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli) {
  AddExec(admin, action, cli);
  AddPlain(admin, action, cli, "time", "The server's clock", Time);
  AddAppRoot(admin, action, cli);
  AddOne(admin, action, cli, "path", "KEY", "The server path registered under KEY", PathWithKey);
  AddPlain(admin, action, cli, "sysdir", "The server's system folder", SystemDirectory);
  AddPlain(admin, action, cli, "printq", "The server's print queues", PrintQueue);
  AddOne(admin, action, cli, "version", "FILE", "The version of a file on the server",
         FileVersion);
  AddPlain(admin, action, cli, "same-machine",
           "Whether the service runs on this machine (exit 0: yes)", SameMachine);
  AddOne(admin, action, cli, "exists", "PATH", "Whether a file or folder exists (exit 0: yes)",
         Exists);
  AddCopy(admin, action, cli);
  AddTwo(admin, action, cli, "mv", "Move (rename) a file on the server", Move);
  AddWithFlag(admin, action, cli, "rm", "PATH",
              "Delete a file, or with -r a folder and everything in it, on the server (a * or ? "
              "in the last name deletes every match)",
              {"-r,--recursive", "Delete a folder with everything in it"}, RemoveMatches,
              RemoveTreeMatches);
  AddOne(admin, action, cli, "rmdir", "FOLDER", "Delete an empty folder on the server",
         RemoveFolder);
  AddWithFlag(admin, action, cli, "mkdir", "FOLDER", "Create a folder on the server",
              {"-p,--parents", "Create missing folders above it too; an existing one is fine"},
              MakeFolder, MakeFolders);
  AddTouch(admin, action, cli);
  AddList(admin, action, cli);
  AddStat(admin, action, cli);
  AddGet(admin, action, cli);
  AddPut(admin, action, cli);
  CLI::App* fetch = AddOne(
      admin, action, cli, "fetch", "REMOTE",
      "Bring the server file into this user's cache ($XDG_CACHE_HOME/pelmora, mode 700) if "
      "changed; print its local path",
      Fetch);
  // The library keeps its cache under the temporary folder, which it reads when a session is
  // made: point that at this user's private cache, before any session exists.
  fetch->parse_complete_callback(
      [] { setenv("TMPDIR", MakeToolCacheRoot().c_str(), /*overwrite=*/1); });
}

}  // namespace pelmora_tool

// The `pelmora admin` commands on one connected host. Each writes its result to the session's
// output, reports a failure there as the library's number and text, and returns the host's exit
// status (admin_session.h). Each blocks for one or a few request/reply exchanges, every receive
// bounded by the session's time-out.
//
//   HostSession session(target, options, secrets, output);
//   if (session.Connect()) status = Exists(session, "C:\\Data\\shop.ini");
#ifndef TOOLS_PELMORA_ADMIN_REQUESTS_H_
#define TOOLS_PELMORA_ADMIN_REQUESTS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tools/pelmora/admin_session.h"

namespace pelmora_tool {

// What exec runs: one word is a command line for the service's shell, several words an
// argument vector run without a shell (joined with shell quoting for a service that has only
// the plain command exchange).
struct ExecArgs {
  std::vector<std::string> words;
  int32_t timeout_ms = 0;      // the command's time-out; 0: none
  bool forward_input = false;  // the tool's standard input goes to the command
};

// Runs a command on the host. With a service that speaks the extended command exchange, its
// standard output and standard error go to the output's Write and WriteError byte for byte, the
// tool's standard input is forwarded when asked, and the result is the remote status (0-255,
// 128 + N for signal N), also passed to RemoteStatus. Otherwise the plain exchange: output as
// text, the status unknown (RemoteStatus(nullopt), a failure line, kExitFailed), and a command
// line the service's code page cannot carry is refused before anything is sent (kExitUsage).
// The tool's failures: 2 usage or access code refused, 3 connection lost, 4 could not start,
// 6 timed out. Blocks until the command ends (without limit when its time-out is 0).
int Exec(HostSession& session, const ExecArgs& args);

// The server's clock as "yyyy-mm-dd hh:nn:ss".
int Time(HostSession& session);

// The application's root folder for `product` ("qel" or "vorin"): 9000 for another product,
// 76 "Path not found" when the service has no path for it.
int AppRoot(HostSession& session, const std::string& product);

// The path the service registers under `key`; 1 with a message when there is none.
int PathWithKey(HostSession& session, const std::string& key);

// The server's system folder, print queues, and a file's version (one line each).
int SystemDirectory(HostSession& session);
int PrintQueue(HostSession& session);
int FileVersion(HostSession& session, const std::string& file);

// "yes" (0) when the service runs on this machine, "no" (1) otherwise.
int SameMachine(HostSession& session);

// "file" or "folder" (0) when `path` exists, "missing" (1) when it does not.
int Exists(HostSession& session, const std::string& path);

// Copies a file, or with `recursive` a folder; `overwrite` replaces an existing target.
int Copy(HostSession& session, const std::string& source, const std::string& target,
         bool recursive, bool overwrite);

// Moves (renames) a file.
int Move(HostSession& session, const std::string& source, const std::string& target);

// Deletes a file / a folder; creates a folder; creates a file unless it exists (`unicode` makes
// it a UTF-16 text file); an existing file is left as it is, as touch(1) leaves its content.
int RemoveFile(HostSession& session, const std::string& path);
int RemoveFolder(HostSession& session, const std::string& path);
int MakeFolder(HostSession& session, const std::string& path);

// rm -r: deletes a file, or a folder with everything in it (depth first, at most
// kMostFolderDepth folders deep); stops at the first failure, which names its path.
inline constexpr int kMostFolderDepth = 64;
int RemoveTree(HostSession& session, const std::string& path);

// mkdir -p: creates the folder and each missing folder above it; an existing folder is success.
int MakeFolders(HostSession& session, const std::string& path);

int Touch(HostSession& session, const std::string& path, bool unicode);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_ADMIN_REQUESTS_H_

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

#include "tools/pelmora/admin_session.h"

namespace pelmora_tool {

// Runs `command_line` on the host with the command's time-out `timeout_ms` (forwarded to the
// service; the session waits that long plus one second for each reply). Output is written as it
// arrives. 0 for a normal end; 4 could not start (9001), 5 ended abnormally (9002), 6 timed out
// (9003 or no reply in time), 3 connection lost, 2 access code refused (built-in account).
int Exec(HostSession& session, const std::string& command_line, int32_t timeout_ms);

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
int Touch(HostSession& session, const std::string& path, bool unicode);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_ADMIN_REQUESTS_H_

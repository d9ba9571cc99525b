// The request handlers of a logged-in session, one family per file, and what each of them may
// reach: the connection (SessionChannel), the account and its rights, the configuration with its
// drives, the file-work pool and the service's running-command count. The session picks a
// handler from its dispatch table (session_dispatch.cc) by the request block's code.
//
//   asio::awaitable<bool> HandleSomething(RequestScope& request, const RequestBlock& block) {
//     Target target = request.ResolveArgument(block, 0, /*write=*/false);
//     request.Audit(block.code, target.text, target.error);
//     co_return co_await request.channel.SendResult(target.error);
//   }
//
// A handler returns false when the session must end (the connection is gone or out of step).
#ifndef PELMORAD_SESSION_REQUESTS_H_
#define PELMORAD_SESSION_REQUESTS_H_

#include <asio/awaitable.hpp>
#include <asio/ip/address.hpp>
#include <asio/thread_pool.hpp>
#include <cstdint>
#include <string>

#include "pelmora/admin/wire.h"
#include "pelmorad/blocking.h"
#include "pelmorad/drive_path.h"
#include "pelmorad/runtime.h"
#include "pelmorad/session_channel.h"

namespace pelmorad {

// A path argument checked against the drives and the account.
struct Target {
  DrivePath path;
  std::string text;  // as sent, for the audit line
  int32_t error = 0;
};

// What one request of a logged-in session may reach.
struct RequestScope {
  SessionChannel& channel;
  const Runtime& runtime;  // the configuration the session logged in under, with its drives
  const Account& account;
  asio::thread_pool& pool;         // for work that blocks: file work, starting programs
  CommandCount& running_commands;  // the service's count of running commands
  int& command_group;              // the session's running command's process group, 0 for none
  const std::string& peer;         // the client's address:port, for the audit lines
  asio::ip::address client;        // the client's address

  const Limits& limits() const { return runtime.config.limits; }
  // Checks argument `index` as a path; `write` when the request changes the file system.
  Target ResolveArgument(const pelmora::admin::RequestBlock& block, std::size_t index,
                         bool write) const;
  // The flag argument `index` ("TRUE" is true).
  static bool FlagArgument(const pelmora::admin::RequestBlock& block, std::size_t index);
  void Audit(int code, const std::string& path, int32_t result) const;
  // Runs `function` on the pool. Requests are served only in an account worker, which already
  // is the account's user.
  template <typename Function>
  auto RunOnPool(Function function) const {
    return RunBlocking(pool, std::move(function));
  }
};

// The reply that refuses `block` with `error`, in the form its request expects (a go reply, a
// transfer header of size -1, a size message of -1, an empty text, a "not started" status or a
// result reply). An upload's header message is read first; `watch_for_tls` as for ReadMessage.
asio::awaitable<bool> Refuse(SessionChannel& channel, const pelmora::admin::RequestBlock& block,
                             int32_t error, bool watch_for_tls = false);

// Files and folders (session_files.cc): existence tests, create, delete (codes 5-10), copy and
// move (11, 12, 15); result replies.
asio::awaitable<bool> HandleFileRequest(RequestScope& request,
                                        const pelmora::admin::RequestBlock& block);
asio::awaitable<bool> HandleCopy(RequestScope& request, const pelmora::admin::RequestBlock& block);

// Listings (session_listing.cc): file information (3) and folder listings (4), as sized records.
asio::awaitable<bool> HandleFileInfo(RequestScope& request,
                                     const pelmora::admin::RequestBlock& block);
asio::awaitable<bool> HandleListing(RequestScope& request,
                                    const pelmora::admin::RequestBlock& block);

// Transfers (session_transfer.cc): upload (0) into an atomic file, download (1); and the
// download from an offset (44, session_resume.cc).
asio::awaitable<bool> HandleUpload(RequestScope& request,
                                   const pelmora::admin::RequestBlock& block);
asio::awaitable<bool> HandleDownload(RequestScope& request,
                                     const pelmora::admin::RequestBlock& block);
asio::awaitable<bool> HandleResume(RequestScope& request, const pelmora::admin::RequestBlock& block);
// The download exchange for `target` from byte `offset_asked` (request `code`, for the audit).
asio::awaitable<bool> SendDownload(RequestScope& request, int code, Target target,
                                   int32_t offset_asked);

// Commands (session_command.cc): a command line with its output streamed (20), the print
// queue (14); and the extended command exchange (session_exec.cc): hello (40) and run (41).
asio::awaitable<bool> HandleCommand(RequestScope& request,
                                    const pelmora::admin::RequestBlock& block);
asio::awaitable<bool> HandlePrintQueue(RequestScope& request,
                                       const pelmora::admin::RequestBlock& block);
asio::awaitable<bool> HandleExec(RequestScope& request, const pelmora::admin::RequestBlock& block);

// Information (session_info.cc): path by key (13), same machine (17), file version (18),
// system folder (19) and clock (21).
asio::awaitable<bool> HandlePathWithKey(RequestScope& request,
                                        const pelmora::admin::RequestBlock& block);
asio::awaitable<bool> HandleSameMachine(RequestScope& request,
                                        const pelmora::admin::RequestBlock& block);
asio::awaitable<bool> HandleFileVersion(RequestScope& request,
                                        const pelmora::admin::RequestBlock& block);
asio::awaitable<bool> HandleText(RequestScope& request, const pelmora::admin::RequestBlock& block);

// File modes (session_mode.cc): get mode (42) and set mode (43).
asio::awaitable<bool> HandleMode(RequestScope& request, const pelmora::admin::RequestBlock& block);

}  // namespace pelmorad

#endif  // PELMORAD_SESSION_REQUESTS_H_

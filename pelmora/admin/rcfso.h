// RCFSO: the remote file-system client of the administration service.
//
// One RCFSO holds one TCP session (a WinSock) with the administration service: it logs in with a
// user name and a password, then carries one request at a time (remote file and folder requests,
// remote command lines) and reports every failure through ErrCode/ErrDescription instead of
// raising. Every member clears the error first. Replies are bytes from the network and are
// bounds-checked; a reply waits at most `timeout` milliseconds per receive.
//
//   pelmora::admin::RCFSO fso;
//   fso.SetLogPath("/var/log/pelmora");
//   if (!fso.Connect("server", 8002, "user", "secret", false)) {
//     std::cerr << fso.ErrCode() << " " << fso.ErrDescription() << '\n';
//   }
//   bool there = fso.FileExists("C:\\Data\\a.txt");
//
// Events (FSOError, FSODisconnect, CommandOutput, in that order) go to every sink added with
// AddEventSink, synchronously, on the caller's thread, from inside the call that causes them.
// One object is used by one thread at a time; the log folder and level are per thread.
#ifndef PELMORA_ADMIN_RCFSO_H_
#define PELMORA_ADMIN_RCFSO_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/rc_file_info.h"
#include "pelmora/admin/remote_command.h"
#include "pelmora/common/date.h"
#include "pelmora/net/tls_client.h"
#include "pelmora/net/winsock.h"
#include "pelmora/platform/export.h"

namespace pelmora::admin {

namespace internal {
class Channel;
class RCFSOTestAccess;
}  // namespace internal

// A Boolean argument as automation passes it: True is -1, False 0. Where a flag travels as
// "TRUE"/"FALSE", only a value of exactly -1 is sent as "TRUE". C++ callers pass true or false;
// late-bound callers hand the raw 16-bit value over with FromRaw.
class PELMORA_API AutomationBool {
 public:
  constexpr AutomationBool(bool value) : raw_(value ? -1 : 0) {}  // NOLINT: implicit on purpose
  static constexpr AutomationBool FromRaw(int16_t raw) {
    AutomationBool flag(false);
    flag.raw_ = raw;
    return flag;
  }
  constexpr int16_t Raw() const { return raw_; }

 private:
  int16_t raw_;
};

// Receives the events of an RCFSO. Each passes one string by reference; a handler may change it,
// which nothing reads afterwards. Handlers must not call back into the raising RCFSO; an
// exception thrown by a handler propagates out of the call that raised the event.
class PELMORA_API RCFSOEvents {
 public:
  virtual ~RCFSOEvents() = default;
  // An upload reported an error.
  virtual void FSOError(std::string& message) {}
  // A send failed with 10054 (connection reset by the peer), or the disconnect notification ran.
  virtual void FSODisconnect(std::string& message) {}
  // A remote command produced output (UTF-8, converted from the server's ANSI bytes).
  virtual void CommandOutput(std::string& text) {}
};

class PELMORA_API RCFSO {
 public:
  // A new client, not connected: receive time-out 10000 ms, sequence counter 2147483640, the
  // thread's log level set to 3, the cache folder under the temporary folder. Never fails.
  RCFSO();
  // Closes the connection, ignoring any error.
  ~RCFSO();
  RCFSO(const RCFSO&) = delete;
  RCFSO& operator=(const RCFSO&) = delete;

  // --- Session ---

  // Opens a TCP connection to Host:lPort and logs in. Credentials are encoded with the
  // credential table first unless `bEncoded` (then sent as given). Returns the login's outcome.
  // Fails with 8116 "Empty user name" / "Empty password " (nothing sent), the socket's number and
  // text when the connection cannot be opened, the result reply's code and message when the
  // login is refused, or a socket error (10060 on time-out). Once the TCP connection stands the
  // object counts as connected, whatever the login yields. Blocks for the connect and for at
  // most `timeout` ms per receive.
  bool Connect(std::string_view Host, int32_t lPort, std::string_view sUserName,
               std::string_view sPassword, bool bEncoded);
  // Closes the connection (nothing is sent to the server); the sequence counter runs on.
  void Disconnect();
  // The disconnect notification: logs and raises FSODisconnect with `message`; the connected
  // state is unchanged.
  void NotifyDisconnect(std::string message);

  // --- Properties ---

  // The receive time-out in milliseconds (0: no limit), passed straight to the socket. The
  // setter raises pelmora::Error 380 "Invalid property value" for a negative value.
  int32_t timeout() const;
  void set_timeout(int32_t value);
  // Code and text of the last error; 0 and "" when the last member succeeded.
  int32_t ErrCode() const;
  const std::string& ErrDescription() const;
  // The thread's log folder (shared with every RCFSO on the thread).
  std::string LogPath() const;
  void SetLogPath(std::string value);
  // C++ only: the local folder for files fetched from the server, ending in '/'.
  const std::string& CacheFolder() const { return cache_folder_; }
  // The transport the next Connect uses: plain unless `enabled` (see pelmora/net/tls_client.h).
  // A TLS Connect checks the server's identity before the login message is sent; a refusal
  // leaves the object not connected, with a TlsErrorConstants number and a text that says what
  // was presented and what to do. Late-bound callers reach each field by name (Tls,
  // TlsFingerprint, TlsCaFile, TlsKnownHosts, TlsTrustNew, TlsClientCertificate, TlsClientKey).
  const TlsClientSettings& tls() const;
  void set_tls(TlsClientSettings value);
  // The fingerprint of the certificate the server presented at the last TLS Connect ("" after
  // a plain one, or when no handshake completed).
  const std::string& PresentedFingerprint() const;

  // --- Events ---

  // Adds / removes an event sink (not owned; it must outlive its registration).
  void AddEventSink(RCFSOEvents* sink);
  void RemoveEventSink(RCFSOEvents* sink);

  // --- Remote file and folder requests ---
  // Each sends one request and reads its reply. Text arguments that must not be empty are refused
  // with 8116 when blank (nothing sent); a session that is not connected gives 8117
  // "Connection has not established"; socket, header, sequence and size errors are those of the
  // framing; a refusal by the server leaves its code and message. Each blocks for at most
  // `timeout` ms per receive and returns false / "" / the empty date on failure.

  // The version of a file on the server (request 18). 8116 "Empty Filename".
  std::string GetFileVersion(std::string_view sFileName);
  // The server path registered under `sKey` (request 13). 8116 "Empty key".
  std::string GetPathWithKey(std::string_view sKey);
  // Copies a folder on the server (12). 8116 "Empty existign folder name"/"Empty new folder name".
  bool CopyRemoteFolder(std::string_view sExistingFolder, std::string_view sNewFolder,
                        AutomationBool bOverWrite);
  // Copies a file on the server (11). 8116 "Empty existign file name" / "Empty new file name".
  bool CopyRemoteFile(std::string_view sExistingFile, std::string_view sNewFile,
                      AutomationBool OverWriteFile);
  // Moves a file on the server (15). 8116 as CopyRemoteFile.
  bool MoveRemoteFile(std::string_view sExistingFile, std::string_view sNewFile);
  // Creates a file on the server (7). 8116 "Empty remote file name".
  bool CreateRemoteFile(std::string_view sRemoteFile, AutomationBool bOverWrite,
                        AutomationBool bUnicodeCode);
  // Creates a folder on the server (8). 8116 "Empty remote folder name".
  bool CreateRemoteFolder(std::string_view sRemoteFolder);
  // Deletes a file on the server (9). 8116 "Empty remote file name".
  bool DeleteRemoteFile(std::string_view sRemoteFile);
  // Deletes a folder on the server (10). 8116 "Empty remote folder name".
  bool DeleteRemoteFolder(std::string_view sRemoteFolder);
  // Whether a folder exists on the server (6). 8116 "Empty remote folder name".
  bool FolderExists(std::string_view sRemoteFolder);
  // Whether a file exists on the server (5). 8116 "Empty remote file name".
  bool FileExists(std::string_view sRemoteFile);
  // Whether the server runs on this machine (17).
  bool IsSameMachineWithSvr();
  // The server's system folder (19).
  std::string GetSystemDirectory();
  // The server's local clock (21); a text that is not a date gives 13 "Type mismatch".
  Date GetSystemTime();
  // The server's print queues (14); a negative size gives 8004 "Invalid data size".
  std::string GetPrintQ();

  // --- Listings and file information ---

  // The entries of a remote folder (request 4), in the server's order; empty on any failure.
  // Fails with 8116 "Empty remote folder name" (nothing sent), 8117, 8118 "Cannot open remote
  // folder" when the server cannot open it, the socket's number while the listing is read, or
  // 8004 "Invalid Data Size" for a listing whose entries or records overrun their lengths (the
  // listing is still read to its announced end). Memory follows the entries received, not the
  // announced size. Blocks for at most `timeout` ms per receive.
  RCFileInfoCollection GetFolderFiles(std::string_view sRemoteFolder);
  // Information on one remote file or folder (request 3); a trailing "\" or "/" is dropped except
  // after ":". On true `oFileInfo` holds the new information, on false it is untouched. Fails with
  // 8116 "Empty file name", 8117, 8118 "Cannot open remote file", the socket's number, or 8004
  // "Invalid Data Size" for a malformed record. Blocks for at most `timeout` ms per receive.
  bool GetFileInfo(std::string_view sFileName, RCFileInfo& oFileInfo);

  // --- File transfer ---

  // Copies the local file `sLocalFile` to `sRemoteFile` on the server (request 0): the size
  // message with the file's size (low 32 bits) and times, the server's go reply, the content in
  // raw 1500-byte pieces, then the server's result reply, which is the result. Fails with 8116
  // "Empty remote file name" (nothing sent), 8118 "File <name> does not exist !" (also raised as
  // FSOError), 8118 "Cannot open file <name>", 8117, 8118 "server create file fail" when the
  // server refuses, a socket error, or the server's code and message. After a failure while the
  // content is sent the session should be treated as broken. Reads the file in constant memory;
  // blocks for the sends and at most `timeout` ms per receive.
  bool Upload(std::string_view sLocalFile, std::string_view sRemoteFile);
  // Copies `sRemoteFile` from the server into the local file `sLocalFile` (request 1), replacing
  // it, and sets its last-access time and its last-write time (cut to milliseconds) to the
  // server's; Linux keeps no settable creation time, so the file's own birth time stays. Fails
  // with 8116 "Empty local file name" / "Empty remote file name" (nothing sent), 8117, the
  // receive's error, 8004 "Cannot open remote file" when the server reports size -1, 8118
  // "Cannot create file <name>" (the server is told "F"), or the socket's number while the
  // content comes (10060 on time-out, 10054 when the server closes): the part received stays
  // on disk. Constant memory; each piece waits at most `timeout` ms.
  bool Download(std::string_view sLocalFile, std::string_view sRemoteFile);

  // --- Server-file cache and addresses ---

  // The dotted address of this machine, as the session's socket found it.
  std::string getLocalIP() const;
  // The host text given to Connect (a name or an address, as the caller gave it, not resolved).
  std::string getRemoteIP() const;
  // Makes sure the cache holds a current copy of the server's file `sRemoteFile` (drive-letter
  // form) and returns its local path in `sLocalFile` whatever the outcome: CacheFolder() +
  // getRemoteIP() + "/" + the first character + "$" + the path from its third character on, "\"
  // turned into "/". The file is downloaded when missing, then its last-write time is compared
  // with the server's (whole seconds) and it is downloaded again when they differ. False when a
  // download or the file information fails (their ErrCode/ErrDescription stand, 8117 for an
  // object never connected; a line goes to the .err log); a partial file may stay. A host text or
  // path that would leave the cache folder ("..", "/") is refused with 75 "Path/File access
  // error: <host> <path>" and nothing written. Blocks as GetFileInfo and Download do.
  bool getUpdatedServerFileToTempFolder(std::string_view sRemoteFile, std::string& sLocalFile);

  // --- Remote command ---

  // Runs `command` on the server (request 20, `lTimeout` forwarded unchanged) and waits until the
  // server reports its end, raising CommandOutput for each output reply as it arrives. True only
  // for a normal end. Fails with 8116 "Empty command", 8117, the receive's error, 9001
  // "Create process fail", 9002 "Process terminated abnormally" or 9003 "Request time out".
  // Blocks until the status reply; each receive waits at most `timeout` ms.
  bool SyncCreateProcess(std::string_view command, int32_t lTimeout);

  // --- Extended remote command ---
  // The version of the extended command exchange the service speaks (request 40), 0 when it has
  // none: the service's refusal is not kept as an error. Blocks for at most `timeout` ms.
  int32_t ExtendedCommandVersion();
  // Runs `command` through the extended exchange (request 41): standard input from `io`,
  // standard output and standard error to its callbacks, byte-exact, and on true the exit status
  // or signal in `exit`. Fails with 8116 "Empty command", 8117, the service's refusal (1
  // "Incorrect function." from a service without the extension, 5 without the right to run
  // commands, 8 when too many run, or why the command could not start), a socket number
  // (10054 when the connection is lost, 10060 when no exit came within the command's time-out
  // plus `timeout`) or 8004 "Invalid Data Size" for a malformed frame; after a failure in the
  // stream phase the session is out of step. Blocks until the command ends (without limit when
  // its time-out is 0).
  bool RunCommand(const RemoteCommand& command, RemoteCommandIo& io, ExecExit& exit);

  // --- File modes, for a service whose ExtendedCommandVersion is 2 or more ---
  // The permission bits (0-0777) of the server file `sRemoteFile` in `lMode` (request 42).
  // Fails with the service's refusal (2 or 3 not there, 5 no right or a link, 87 not a file);
  // a service without the request refuses with 1. Blocks for at most `timeout` ms.
  bool GetFileMode(std::string_view sRemoteFile, int32_t& lMode);
  // Sets the permission bits of the server file `sRemoteFile` to `lMode` (request 43). Fails
  // with 87 for bits outside 0777 (setuid, setgid, sticky) without asking, otherwise as
  // GetFileMode (5 also for a read-only account). Blocks for at most `timeout` ms.
  bool SetFileMode(std::string_view sRemoteFile, int32_t lMode);

  // --- Resumed download, for a service whose ExtendedCommandVersion is 3 ---
  // Completes the local file `sLocalFile`, which holds the first part of `sRemoteFile`: asks the
  // server for the bytes from the local file's size on (request 44) and appends them, as
  // Download writes, then sets the same times. The server's size message must describe the file
  // the caller expects (`lExpectedSize` bytes, more than the local file holds, last written at
  // `dExpectedLastWrite` as GetFileInfo gives it); otherwise the server is told "F" and the call
  // fails with 8004 kRemoteFileChanged, the local file untouched. Fails also as Download does
  // (8116, 8117, 8004 "Cannot open remote file", the socket's number while the rest comes, the
  // write's error with the file removed), with 8118 "Cannot open file <name>" when the local file
  // is missing or too large; a service without the request refuses with 1. Constant memory;
  // each piece waits at most `timeout` ms.
  bool ResumeDownload(std::string_view sLocalFile, std::string_view sRemoteFile,
                      int32_t lExpectedSize, Date dExpectedLastWrite);

 private:
  friend class internal::RCFSOTestAccess;

  // The connection, its framing and the state every request family shares (internal/channel.h);
  // each member below hands its request to the family that carries it (internal/*_requests.h,
  // transfers.h, server_file_cache.h).
  std::unique_ptr<internal::Channel> channel_;
  std::string cache_folder_;
};

}  // namespace pelmora::admin

#endif  // PELMORA_ADMIN_RCFSO_H_

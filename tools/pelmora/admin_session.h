// One host's administration session for the `pelmora admin` commands: the options and secrets
// of the command line, where a command's output and failure go, and the connected AdminClient.
//
// Without --account the library's built-in service account logs in through AdminClient (the
// library's main job); with --account the AdminClient's own RCFSO logs in with that account and
// a password that never comes from the command line (--password-file, PELMORA_PASSWORD, or a
// prompt on the terminal). Remote commands with the built-in account need the command access
// code (--access-code-file or PELMORA_ACCESS_CODE).
//
//   Credentials secrets = ResolveCredentials(options, /*needs_access_code=*/true);
//   HostSession session({"server", 0}, options, secrets, output);
//   if (session.Connect()) status = Exec(session, "uname -a", 60000);
#ifndef TOOLS_PELMORA_ADMIN_SESSION_H_
#define TOOLS_PELMORA_ADMIN_SESSION_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "pelmora/admin/admin_client.h"
#include "pelmora/net/tls_client.h"
#include "tools/pelmora/host_list.h"

namespace pelmora_tool {

// Exit statuses of `pelmora admin` (also each host's result in a fleet run).
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;       // the request failed or the answer is "no"
inline constexpr int kExitUsage = 2;        // usage, credentials, local files
inline constexpr int kExitConnect = 3;      // the connection or the login failed
inline constexpr int kExitNotStarted = 4;   // exec: the command could not start (9001)
inline constexpr int kExitAbnormal = 5;     // exec: the command ended abnormally (9002)
inline constexpr int kExitTimedOut = 6;     // exec: the command's time-out expired (9003, 10060)
// A single-host exec exits with the remote command's status; every failure of its own (any of
// the numbers above, and a status the service cannot report) becomes this, as ssh does.
inline constexpr int kExitExecFailure = 255;

// The global options of `pelmora admin`.
struct AdminOptions {
  std::string host = "localhost";
  // The name to connect to when the defaults file's section for `host` gives one ("" for `host`
  // itself); messages keep naming the host as it was given.
  std::string address;
  int32_t port = pelmora::admin::kServicePort;
  std::string account;           // "" for the built-in service account
  std::string password_file;
  std::string access_code_file;
  int32_t timeout_ms = 10000;    // the session's receive time-out
  int32_t connect_timeout_ms = 10000;  // 0: the system's own connect time-out (minutes)
  bool quiet = false;
  bool verbose = false;  // the connection's steps on standard error
  bool fleet = false;  // several hosts at once: `get` puts each host's file in its own folder
  // Transport and trust: the command-line flags fill these first, the defaults file what they
  // leave unset (ApplyFileTransport).
  pelmora::TlsClientSettings tls;
};

// The secrets of one run, read once before any host is contacted.
struct Credentials {
  std::string account;      // "" for the built-in account
  std::string password;     // with an account
  std::string access_code;  // for exec with the built-in account
};

// Reads the secrets the options call for: the account's password from --password-file, else
// PELMORA_PASSWORD, else a prompt on the terminal (none with a client certificate over TLS,
// which logs in without one); the access code (when `needs_access_code` and
// no account is given) from --access-code-file, else PELMORA_ACCESS_CODE. Throws CommandError
// when a file cannot be read, a secret is empty or missing, or no terminal is there to ask.
// Blocks while the user types.
Credentials ResolveCredentials(const AdminOptions& options, bool needs_access_code);

// A failure to report for one host: a library error number with its text, or (number 0) a
// plain text. A `local` failure is one of this machine's files, not of the host.
struct HostFailure {
  int32_t number = 0;
  std::string description;  // the library's or the service's text, as it stands
  bool local = false;
  std::string detail = {};  // what the tool knows beside it: the path, the cause, a hint

  // "<number> <description> (<detail>)"; the number left out when it is 0, the detail when empty.
  std::string Text() const;
};

// Where one host's results go: output text as it arrives (any chunking) and its failure.
class HostOutput {
 public:
  virtual ~HostOutput() = default;
  // Standard-output text of the command, passed on as it comes.
  virtual void Write(std::string_view text) = 0;
  // Standard-error bytes of a remote command, when the service keeps them apart.
  virtual void WriteError(std::string_view text) { Write(text); }
  // The remote command's status (0-255, 128 + N for signal N), or nullopt when the service
  // cannot report it; called at most once, and only by exec.
  virtual void RemoteStatus(std::optional<int> status) {}
  // The host's failure; called at most once per command.
  virtual void Fail(const HostFailure& failure) = 0;
  // Whether transfer progress is shown (TransferBytes is then called from a watcher thread).
  virtual bool ShowsProgress() const { return false; }
  // Bytes of a transfer so far of `total` (0: unknown); may come from another thread.
  virtual void TransferBytes(uint64_t done, uint64_t total) {}
  // The transfer has ended: its progress disappears.
  virtual void TransferEnded() {}
  // A step of the connection, shown with -v ("connecting to web1:8002").
  virtual void Step(std::string_view text) {}
  // The fingerprint of the certificate the host presented over TLS ("SHA256:...").
  virtual void PresentedFingerprint(std::string_view fingerprint) {}
};

// The one-line error: "pelmora: <host>: <number> <description>", or for a local failure
// "pelmora: <description> (from <host>)".
std::string ErrorLine(std::string_view host, const HostFailure& failure);

// The connected session with one host. Not thread-safe: each host runs on its own thread with its
// own session.
class HostSession {
 public:
  HostSession(HostTarget target, const AdminOptions& options, const Credentials& credentials,
              HostOutput& output);
  ~HostSession();
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;

  // Connects and logs in. On failure reports it (the library's number and text, or 10060 when
  // the connect time-out expires first) and returns false. Blocks for the connect and the login
  // answer (each at most its time-out).
  bool Connect();

  pelmora::admin::AdminClient& Client() { return *client_; }
  pelmora::admin::RCFSO& Fso() { return client_->FileSystemClient(); }
  HostOutput& Output() { return output_; }
  const AdminOptions& Options() const { return options_; }
  const Credentials& Secrets() const { return credentials_; }
  const HostTarget& Target() const { return target_; }
  // The host's name as given (for the cache and the messages).
  const std::string& HostName() const { return target_.name; }
  // The host as the host list gave it ("name" or "name:port"), as reports show it.
  const std::string& Display() const { return display_; }

  // Whether the service keeps file modes for the transfers (the file mode requests), asked once
  // per session with the hello; a service without them is left alone. Blocks for the hello.
  bool KeepsModes();
  // Whether the service has the download from an offset (asked with the same hello).
  bool Resumes();

  // Reports the RCFSO's last error and returns `status`.
  int FailFromClient(int status);
  // As FailFromClient, naming `path` and what the server shows of it ("no drive Q:", "is a
  // folder", "no folder C:\\x"), found by asking it after the failure; `folder_hint` is added
  // when the path is a folder and a file was expected (as "use rmdir"); a path the request was
  // to create (not `reading`) that is simply not there yet gets no cause. Nothing is guessed when
  // the service cannot answer. Blocks for those requests.
  int FailOnPath(int status, const std::string& path, const std::string& folder_hint = "",
                 bool reading = true);
  // Reports `failure` and returns `status`.
  int Fail(int status, HostFailure failure);

 private:
  // One login attempt with the built-in account or the given one.
  bool LogIn(const std::string& name);

  HostTarget target_;
  std::string display_;
  // The version of the extended exchange the service speaks, asked once (0: none).
  int32_t ExtendedVersion();

  const AdminOptions& options_;
  const Credentials& credentials_;
  HostOutput& output_;
  std::unique_ptr<pelmora::admin::AdminClient> client_;
  std::optional<int32_t> extended_version_;  // the hello's answer, once asked
};

// The work of one admin command on a connected session; returns the host's exit status.
using HostRequest = std::function<int(HostSession&)>;

// Connects to `target` and runs `request` there; a failed connection gives kExitConnect. Any
// pelmora::Error the request raises is reported and gives kExitFailed. Blocks until done.
int RunOnHost(const HostTarget& target, const AdminOptions& options,
              const Credentials& credentials, HostOutput& output, const HostRequest& request);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_ADMIN_SESSION_H_

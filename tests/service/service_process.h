// A pelmorad process for one test: a scratch folder with drive folders C and D, a generated
// configuration with test accounts, the service started on a free loopback port (it reports the
// port through a FIFO, so nothing polls or sleeps), its standard error captured for the audit
// lines, and SIGTERM (then SIGKILL if it lingers) when the test ends.
//
//   ServiceProcess service;
//   service.Start();
//   RCFSO fso;
//   fso.Connect("127.0.0.1", service.port(), "operator", kOperatorPassword, false);
#ifndef TESTS_SERVICE_SERVICE_PROCESS_H_
#define TESTS_SERVICE_SERVICE_PROCESS_H_

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/rcfso.h"
#include "pelmora/net/tls_client.h"

namespace pelmorad::testing {

inline constexpr std::string_view kOperatorPassword = "operator secret";
inline constexpr std::string_view kReaderPassword = "reader secret";
// A configuration section that turns the task runner on over drive C's tasks folder.
inline constexpr char kSchedulerSection[] = R"(
[scheduler]
enabled = true
folder = 'C:\tasks'
)";

// The crypt(3) hash of one of the passwords above (computed once per test program).
const std::string& HashOf(std::string_view password);

// Which listeners a ServiceProcess opens.
enum class Listeners {
  kPlain,        // one plain port
  kPlainAndTls,  // a plain port and a TLS port (the service's own certificate unless [tls] says)
  kTlsOnly,      // a TLS port only (tls_only = true)
};

// TLS client settings with the given checks of the server (see TlsClientSettings).
pelmora::TlsClientSettings TlsChecks(std::string fingerprint, std::string ca_file = "",
                                     std::string known_hosts = "", bool trust_new = false);

// The transport library clients of the tests use (ServiceProcess::ConnectClient): TLS when the
// environment has PELMORA_TEST_TRANSPORT=tls (the suite's second run), else plain.
bool TestTransportIsTls();

class ServiceProcess {
 public:
  // Makes the scratch folder and its drives; `extra` is appended to the configuration (more
  // [limits], [paths], ...), `top` is put before its first table (top-level keys). Accounts:
  // operator (all drives, read-write, commands), reader (read-only), donly (drive D only), and
  // the library's built-in account. The state folder is the scratch folder's "state".
  explicit ServiceProcess(std::string extra = "", std::string top = "");
  ~ServiceProcess();

  // Starts pelmorad listening on `listen` and waits (at most 20 s) for its port. Fails the test
  // (ADD_FAILURE) and returns false when it does not come up.
  // With TLS listeners (set_listeners, or the TLS test transport) the TLS port is learnt too.
  bool Start(std::string listen = "127.0.0.1:0");
  // The listeners the next Start opens; default kPlainAndTls under the TLS test transport, else
  // kPlain.
  void set_listeners(Listeners listeners) { listeners_ = listeners; }
  // Sends `signal` and waits at most 20 s for the exit; returns the exit status (-1 on timeout,
  // 128 + n when killed by signal n).
  int Stop(int signal);
  // Sends a signal without waiting.
  void Signal(int signal) const;

  int port() const { return port_; }
  // The first TLS port, 0 without TLS listeners.
  int tls_port() const { return tls_port_; }
  // The fingerprint of the certificate the TLS listeners present, read from its file at Start.
  const std::string& tls_fingerprint() const { return tls_fingerprint_; }
  // Logs `fso` in as `user` over the test transport: the plain port, or the TLS port with the
  // service's certificate pinned.
  bool ConnectClient(pelmora::admin::RCFSO& fso, std::string_view user,
                     std::string_view password) const;
  // The scratch folder's state folder (the service's own TLS key and certificate).
  std::string StateFolder() const { return folder_ + "/state"; }
  pid_t pid() const { return pid_; }
  // The Linux folder of drive C or D, and the scratch folder.
  std::string Drive(char letter) const;
  const std::string& folder() const { return folder_; }
  const std::string& config_path() const { return config_path_; }
  // Everything the service wrote to standard error so far.
  std::string ErrorOutput() const;
  // Rewrites the configuration with `extra` appended (for reload tests); the top-level keys
  // given at construction stay.
  void WriteConfig(const std::string& extra);

 private:
  std::string folder_;
  std::string config_path_;
  std::string log_path_;
  std::string top_;
  pid_t pid_ = -1;
  int port_ = 0;
  int tls_port_ = 0;
  std::string tls_fingerprint_;
  Listeners listeners_;
};

// A Linux user made for one test (useradd, with a group of its name, no home folder) and removed
// with its group when the test ends (userdel). Additions and removals of test programs running
// at once take turns through a lock file, as useradd refuses to wait for /etc/passwd.
class ScopedUser {
 public:
  // Makes user `prefix` followed by this process's id. ok() tells whether it worked.
  explicit ScopedUser(std::string_view prefix);
  ~ScopedUser();
  ScopedUser(const ScopedUser&) = delete;
  ScopedUser& operator=(const ScopedUser&) = delete;

  bool ok() const { return ok_; }
  const std::string& name() const { return name_; }
  uid_t uid() const { return uid_; }
  gid_t gid() const { return gid_; }

 private:
  std::string name_;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
  bool ok_ = false;
};

// Runs `argv` (a program path first) and returns its exit status, -1 when it cannot start.
int RunProgram(const std::vector<std::string>& argv);

// Waits (at most 20 s) until `path` holds a whole line.
bool WaitForLine(const std::string& path);

// Writes `content` to `path` (binary).
void WriteFile(const std::string& path, std::string_view content);
// The content of `path` ("" when it cannot be read).
std::string ReadFile(const std::string& path);
// True when process `pid` ends within `milliseconds` (a zombie counts as ended, and so does a
// process that is already gone). Waits on a process descriptor, not by polling.
bool ProcessEnds(pid_t pid, int milliseconds);

// True when `path` exists (links not followed).
bool PathExists(const std::string& path);

}  // namespace pelmorad::testing

#endif  // TESTS_SERVICE_SERVICE_PROCESS_H_

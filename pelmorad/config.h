// The service's configuration: listen addresses, the drive map, the key paths, the system
// answers, the accounts and the limits, read from a TOML file.
//
//   pelmorad::Config config = pelmorad::LoadConfig("/etc/pelmora/pelmorad.toml");
//   const pelmorad::Account* account = config.FindAccount("operator");
//
// Every value is checked when the file is read, so a configuration that loads is one the service
// can run with; docs/protocol.md lists the keys.
#ifndef PELMORAD_CONFIG_H_
#define PELMORAD_CONFIG_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelmora/admin/wire.h"

namespace pelmorad {

// The configuration file used when none is given on the command line.
inline constexpr std::string_view kDefaultConfigPath = "/etc/pelmora/pelmorad.toml";

// One login account.
struct Account {
  std::string name;
  std::string password_hash;         // crypt(3) hash
  std::vector<char> drives;          // upper-case letters the account may use; empty = every drive
  bool read_only = false;            // refuses every request that changes files or folders
  bool commands = false;             // may run command lines (code 20) and the print queue
  bool tasks = false;                // may change the scheduler's Tasks folder
  std::string run_as;                // Linux user the account's work runs as (service as root)
  std::string working_folder = "/";  // Linux folder commands start in
  bool require_tls = false;          // refuses the login on a plain connection
  // Fingerprints ("SHA256:" + base64) of client certificates that log in as this account over
  // TLS without a password.
  std::vector<std::string> client_certificates;

  // True when the account may use drive `letter` (upper case).
  bool MayUseDrive(char letter) const;

  bool operator==(const Account&) const = default;
};

// The limits that keep one client from starving the others.
struct Limits {
  int sessions = 1024;             // sessions at once, all clients together
  int sessions_per_address = 256;  // sessions at once from one client address
  int commands = 16;               // command lines running at once
  int request_bytes = 65536;       // largest request block accepted
  int path_length = 1024;          // longest path (characters) accepted
  int idle_seconds = 300;          // a silent session is closed after this
  int login_failures = 5;          // failures after which the login delay doubles with each
  int lockout_seconds = 60;        // how long failed logins are remembered
  int login_delay_ms = 250;        // delay per remembered failure before a login is checked
  int login_delay_max_ms = 8000;   // the longest delay
  int grace_seconds = 5;           // how long transfers may run on after SIGTERM
  int workers = 4;                 // threads for blocking file work
  int print_queue_seconds = 10;    // longest run of the print queue command
  int login_grace_seconds = 10;    // a connection not logged in by then is closed
  int unauthenticated = 256;       // connections not yet logged in, at most
  int unauthenticated_start = 64;  // from this many on, new ones are dropped at random
};

// The task runner the service hosts: `folder` is a drive path ('C:\pelmora\tasks') beneath a
// mapped drive; it is also published under the path key "Tasks" so that other machines manage
// the tasks through the file requests.
struct SchedulerConfig {
  bool enabled = false;
  std::string folder;
};

// The TLS listeners' certificate and key (PEM paths); both empty: the service's own, made in
// the state folder on first start.
struct TlsConfig {
  std::string certificate;
  std::string key;
};

// The state folder used when the configuration names none.
inline constexpr std::string_view kDefaultStateDirectory = "/var/lib/pelmora";

// The whole configuration.
struct Config {
  std::vector<std::string> listen = {"127.0.0.1:" + std::to_string(pelmora::admin::kServicePort)};
  std::vector<std::string> listen_tls;  // addresses that carry the protocol inside TLS 1.3
  bool tls_only = false;                // no plain listeners at all
  std::string state_directory = std::string(kDefaultStateDirectory);
  TlsConfig tls;
  std::map<char, std::string> drives;                      // letter -> Linux folder
  std::vector<std::pair<std::string, std::string>> paths;  // key -> drive-letter path
  std::string system_directory = "C:\\Windows\\system32";
  std::string print_queue_command;  // "" = no print queue
  std::string shell = "/bin/sh";    // runs command lines with -c
  std::map<std::string, Account> accounts;
  Limits limits;
  SchedulerConfig scheduler;

  // The account called `name`, or nullptr.
  const Account* FindAccount(std::string_view name) const;
  // The path registered under `key` (compared without regard to case), or nullopt.
  // "Tasks" answers the scheduler's folder when no [paths] entry has that key.
  std::optional<std::string> PathForKey(std::string_view key) const;
  // The Linux folder of a drive path beneath a mapped drive ("C:\a\b" -> "<C's folder>/a/b"), or
  // nullopt for an unmapped drive, a path that is not absolute, or a ".." piece.
  std::optional<std::string> LinuxPathOf(std::string_view drive_path) const;
};

// Parses and checks configuration text. Throws pelmora::Error 87 with a description naming
// `source` and the offending key when the text is not valid TOML, a value is out of range or a
// key is unknown (with its line and the nearest known key: "did you mean commands?").
Config ParseConfig(std::string_view text, std::string_view source);

// The password hash an account worker's configuration carries instead of the real one.
inline constexpr char kWorkerPasswordHash[] = "$-";

// The configuration an account worker gets: `text` (which ParseConfig accepted) with every
// account but `account` left out and that one's password hash replaced by kWorkerPasswordHash,
// so a worker holds no password hash. Its other values parse as in `text`.
std::string WorkerConfigText(std::string_view text, const std::string& account);

// Reads and parses the file at `path`. Throws pelmora::Error 2 when it cannot be read, 5 when
// other users could change it: the file is group- or other-writable or belongs to a user other
// than root and the service's, or a folder above it (as written or after resolving links) is
// not root's or the service user's, or is group- or other-writable without the sticky bit that
// protects the entry below it. Warns on standard error when every user may read it. Throws
// what ParseConfig throws. Blocks on the read. `text`, when given, receives the text parsed.
Config LoadConfig(const std::string& path, std::string* text = nullptr);

}  // namespace pelmorad

#endif  // PELMORAD_CONFIG_H_

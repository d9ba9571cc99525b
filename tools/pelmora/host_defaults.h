// Where `pelmora admin` connects when the command line leaves something out: `--host` may carry
// the account and the port as ssh's destinations do ("operator@web1:8003"), and the environment
// gives defaults for what no flag names.
//
//   HostFlags flags{.host = "operator@web1:8003"};
//   ConnectDefaults chosen = ChooseConnectDefaults(flags, std::getenv);
//   // chosen.host "web1", chosen.account "operator", chosen.port 8003
//
// Precedence: the flags (--host with its ACCOUNT@ and :PORT, --account, --port), then the
// environment (PELMORA_HOST, which may carry ACCOUNT@ and :PORT itself, then PELMORA_ACCOUNT and
// PELMORA_PORT), then the defaults file's section of the host (its `host` with ACCOUNT@ and
// :PORT, then its other keys), then the file's top-level defaults, then the built-in defaults
// (localhost, the built-in account, port 8002).
#ifndef TOOLS_PELMORA_HOST_DEFAULTS_H_
#define TOOLS_PELMORA_HOST_DEFAULTS_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "tools/pelmora/admin_session.h"
#include "tools/pelmora/defaults_file.h"

namespace pelmora_tool {

// "[ACCOUNT@]NAME[:PORT]" taken apart; account "" and port 0 where the text names none.
struct HostSpec {
  std::string account;
  std::string name;
  int32_t port = 0;
};

// Parses one destination. Throws CommandError naming `origin` (such as "--host") for an empty
// name or account, a bad port, or an expression that stands for several hosts.
HostSpec ParseHostSpec(std::string_view text, std::string_view origin);

// What the command line gave; nullopt for a flag that was not there.
struct HostFlags {
  std::optional<std::string> host;
  std::optional<std::string> account;
  std::optional<int32_t> port;
};

struct ConnectDefaults {
  std::string host;     // the host as given: the name of its section in the defaults file
  std::string address;  // the name its section gives to connect to, "" for `host` itself
  std::string account;  // "" for the built-in account
  int32_t port = 0;
};

// The host, account and port to use, in the precedence above. Throws CommandError when the
// account or the port of --host contradicts --account or --port, or a variable is malformed.
ConnectDefaults ChooseConnectDefaults(const HostFlags& flags, const GetEnvironment& getenv,
                                      int32_t default_port, const DefaultsFile& file = {});

// Which of the other options the command line gave.
struct OptionFlags {
  bool password_file = false;
  bool access_code_file = false;
  bool timeout = false;
  bool connect_timeout = false;
};

// Fills what neither the flags (`given`) nor the environment set from the section of `alias`,
// then the top level, of the defaults file: the password and access code files (not when
// PELMORA_PASSWORD or PELMORA_ACCESS_CODE is set), the time-outs and, for one host (not a fleet,
// whose hosts take theirs in FleetHostOptions), the transport settings.
void ApplyDefaultsFile(const DefaultsFile& file, const std::string& alias,
                       const OptionFlags& given, const GetEnvironment& getenv,
                       AdminOptions& options);

// What the command line and the environment fixed for every host of a fleet.
struct FleetGiven {
  bool account = false;  // --account, or PELMORA_ACCOUNT
  OptionFlags options;
};

// One host of a fleet through its section of the defaults file, as a single host takes it: the
// name to connect to and, when the host list gave none, the port; the account (the section's
// `host` ACCOUNT@, then its `account`) unless `given` fixed it; the password and access code
// files and the time-outs as ApplyDefaultsFile gives them for the section; and the transport
// settings. A host without a section keeps the run's.
AdminOptions FleetHostOptions(const DefaultsFile& file, HostTarget& target,
                              const AdminOptions& run, const FleetGiven& given = {},
                              const GetEnvironment& getenv = nullptr);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_HOST_DEFAULTS_H_

// The user's defaults file for `pelmora admin`, as ~/.ssh/config is for ssh:
// $XDG_CONFIG_HOME/pelmora/config.toml (else ~/.config/pelmora/config.toml).
//
//   account = "operator"                 # top-level defaults for every host
//   password_file = "~/.config/pelmora/operator.pw"
//   connect_timeout = 5000
//
//   [hosts.web1]                         # `--host web1` (or web1 in --hosts) means this host
//   host = "web1.example.org"            # the name to connect to; may carry ACCOUNT@ and :PORT
//   port = 8003
//   tls = true
//   known_hosts = "~/.config/pelmora/known_hosts"
//
// Keys (top level and host sections alike): host, account, port, password_file,
// access_code_file, timeout, connect_timeout (ms), tls, fingerprint, ca_file, known_hosts,
// client_cert, client_key. File paths may begin with "~/"; a relative path is taken from the
// defaults file's folder. An unknown key, a value of the wrong type and a file that others may
// write to are refused with the file, the line and the reason.
#ifndef TOOLS_PELMORA_DEFAULTS_FILE_H_
#define TOOLS_PELMORA_DEFAULTS_FILE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "pelmora/net/tls_client.h"

namespace pelmora_tool {

// Reads an environment variable; nullptr when it is not set.
using GetEnvironment = std::function<const char*(const char*)>;

// The settings of the top level or of one host section; nullopt for a key the file leaves out.
struct FileSettings {
  std::optional<std::string> host;
  std::optional<std::string> account;
  std::optional<int32_t> port;
  std::optional<std::string> password_file;
  std::optional<std::string> access_code_file;
  std::optional<int32_t> timeout_ms;
  std::optional<int32_t> connect_timeout_ms;
  std::optional<bool> tls;
  std::optional<std::string> fingerprint;
  std::optional<std::string> ca_file;
  std::optional<std::string> known_hosts;
  std::optional<std::string> client_cert;
  std::optional<std::string> client_key;
};

// A read defaults file; empty (no settings at all) when there is none.
struct DefaultsFile {
  std::string path;  // the file read, "" when there was none
  FileSettings defaults;
  std::map<std::string, FileSettings, std::less<>> hosts;

  // The section of the host called `alias`; nullptr when the file has none.
  const FileSettings* Section(std::string_view alias) const;
};

// Where the defaults file is: $XDG_CONFIG_HOME/pelmora/config.toml, else
// $HOME/.config/pelmora/config.toml; "" when neither variable is set.
std::string DefaultsFilePath(const GetEnvironment& getenv);

// Reads the defaults file at `path`; an empty DefaultsFile when the file does not exist. Throws
// CommandError when it belongs to another user than this one or root, is writable by its group
// or by others, cannot be read, or does not parse.
DefaultsFile ReadDefaultsFile(const std::string& path, const GetEnvironment& getenv);

// Parses the text of a defaults file read from `path` (named in errors; relative file paths are
// taken from its folder, "~/" from $HOME). Throws CommandError "PATH: line N: ..." for a TOML
// error, an unknown key (with the nearest known one) or a value of the wrong type.
DefaultsFile ParseDefaultsFile(std::string_view text, const std::string& path,
                               const GetEnvironment& getenv);

// The transport and trust settings of `section` over those of `defaults`, written into the
// fields of `tls` that are still unset (empty texts; `enabled` false), so that the command-line
// flags that set them first keep precedence.
void ApplyFileTransport(const FileSettings* section, const FileSettings& defaults,
                        pelmora::TlsClientSettings& tls);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_DEFAULTS_FILE_H_

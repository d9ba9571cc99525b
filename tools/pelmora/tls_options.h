// The encrypted transport of `pelmora admin`: its flags, the files they default to, and the
// question asked on the terminal about a host the known hosts file does not list yet.
//
//   pelmora admin --tls --host web1 time                      # known hosts, asks once per host
//   pelmora admin --tls --trust-new --hosts 'web[01-40]' time # records new hosts without asking
//   pelmora admin --tls --fingerprint SHA256:... --host web1 time
//   pelmora admin --tls --ca-file ca.pem --host web1.example time
//
// `--tls` (or PELMORA_TLS=1) makes the default port 8443 instead of 8002. The server's identity is
// checked by the pinned fingerprint, else by the CA file (chain, dates and host name), else by
// the known hosts file (default ~/.config/pelmora/known_hosts, its folder made mode 700).
// `--cert FILE --key FILE` present a client certificate; without them ~/.config/pelmora/client.crt
// and client.key are presented when both exist (`pelmora admin keygen` makes them).
#ifndef TOOLS_PELMORA_TLS_OPTIONS_H_
#define TOOLS_PELMORA_TLS_OPTIONS_H_

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "pelmora/net/tls_client.h"
#include "tools/pelmora/commands.h"

namespace pelmora_tool {

// The service's default port over TLS.
inline constexpr int32_t kTlsServicePort = 8443;

// The TLS flags as given on the command line.
struct TlsFlags {
  bool tls = false;
  std::string fingerprint;
  std::string ca_file;
  std::string known_hosts;
  bool trust_new = false;
  std::string certificate;
  std::string key;
};

// Reads an environment variable; nullptr when it is not set.
using Environment = std::function<const char*(const char*)>;

// Adds --tls, --fingerprint, --ca-file, --known-hosts, --trust-new, --cert and --key to `admin`.
void AddTlsOptions(CLI::App& admin, TlsFlags& flags);

// `flags` with what they leave unset taken from `file` (the defaults file's transport settings):
// TLS when the file enables it, and the fingerprint, CA file, known hosts file and client pair.
TlsFlags WithFileTransport(TlsFlags flags, const pelmora::TlsClientSettings& file);

// Whether the run uses TLS: --tls, or PELMORA_TLS set to 1 (or "yes", "true").
bool TlsWanted(const TlsFlags& flags, const Environment& getenv);

// The folder of the user's pelmora files: $XDG_CONFIG_HOME/pelmora, else ~/.config/pelmora.
// Throws CommandError when neither variable is set.
std::string ConfigFolder(const Environment& getenv);

// Makes `folder` and its missing parents, the last with mode 700. Throws CommandError naming the
// folder when it cannot be made.
void MakePrivateFolder(const std::string& folder);

// The transport settings for the library; disabled when TLS is not wanted. The known hosts file
// is used only when neither a fingerprint nor a CA file is given (its folder is then created,
// mode 700, when missing). Throws CommandError for a malformed fingerprint, --cert without --key
// (or the reverse), or a folder that cannot be made.
pelmora::TlsClientSettings ResolveTlsSettings(const TlsFlags& flags, const Environment& getenv);

// Whether a refused TLS connection may be saved by asking the user: the known hosts file is the
// only check and it does not list the host (`number` is the library's "not trusted" number and
// `presented` the fingerprint the host showed).
bool CanAskAboutHost(const pelmora::TlsClientSettings& settings, int32_t number,
                     const std::string& presented);

// Answers whether to trust an unknown host: gets "host:port", its fingerprint and the file.
// Returns nullopt when no terminal is there to ask.
using TrustQuestion = std::function<std::optional<bool>(
    const std::string& where, const std::string& fingerprint, const std::string& file)>;

// Asks on /dev/tty ("The authenticity of host ... can't be established. ... [y/N]"); one
// question at a time across threads. nullopt without a terminal. Blocks while the user answers.
std::optional<bool> AskOnTerminal(const std::string& where, const std::string& fingerprint,
                                  const std::string& file);

// What the tool adds to a refusal of an unknown host that could not be asked about.
std::string NoTerminalHint();

// Adds `pelmora admin keygen [--force]`: an ECDSA P-256 key and a self-signed certificate in the
// configuration folder (client.key and client.crt, mode 600), and the line for the service's
// account.
void AddKeygenCommand(CLI::App& admin, CommandAction& action);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_TLS_OPTIONS_H_

#include "tools/pelmora/tls_options.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "tools/pelmora/crypto_io.h"

namespace pelmora_tool {
namespace {

// "SHA256:" and the unpadded base64 of 32 bytes.
constexpr size_t kFingerprintSize = 7 + 43;

bool IsFingerprint(const std::string& text) {
  if (text.size() != kFingerprintSize || text.rfind("SHA256:", 0) != 0) return false;
  for (size_t i = 7; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (!std::isalnum(c) && c != '+' && c != '/') return false;
  }
  return true;
}

bool Exists(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0;
}

std::string FolderOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

}  // namespace

void MakePrivateFolder(const std::string& folder) {
  const size_t slash = folder.find_last_of('/');
  if (slash != std::string::npos && slash > 0) {
    const std::string parent = folder.substr(0, slash);
    if (!Exists(parent)) MakePrivateFolder(parent);
  }
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    throw CommandError("cannot make " + folder + ": " + std::strerror(errno));
  }
}

void AddTlsOptions(CLI::App& admin, TlsFlags& flags) {
  const char* group = "Encryption";
  admin.add_flag("--tls", flags.tls,
                 "Encrypt the session with TLS 1.3 and check the server's identity (else "
                 "PELMORA_TLS=1); the default port becomes 8443")
      ->group(group);
  admin.add_option("--fingerprint", flags.fingerprint,
                   "Accept only the server certificate with this SHA256:... fingerprint")
      ->group(group);
  admin.add_option("--ca-file", flags.ca_file,
                   "Verify the server's certificate chain and host name against these PEM "
                   "authorities")
      ->group(group);
  admin.add_option("--known-hosts", flags.known_hosts,
                   "File of the hosts' recorded fingerprints (default "
                   "~/.config/pelmora/known_hosts)")
      ->group(group);
  admin.add_flag("--trust-new", flags.trust_new,
                 "Record a host missing from the known hosts file without asking")
      ->group(group);
  admin.add_option("--cert", flags.certificate,
                   "Client certificate (PEM) to log in with (default "
                   "~/.config/pelmora/client.crt when it exists)")
      ->group(group);
  admin.add_option("--key", flags.key, "Key (PEM) of the client certificate")->group(group);
}

bool TlsWanted(const TlsFlags& flags, const Environment& getenv) {
  if (flags.tls) return true;
  const char* value = getenv("PELMORA_TLS");
  if (value == nullptr) return false;
  const std::string text = value;
  return text == "1" || text == "yes" || text == "true";
}

std::string ConfigFolder(const Environment& getenv) {
  const char* config = getenv("XDG_CONFIG_HOME");
  if (config != nullptr && config[0] == '/') return std::string(config) + "/pelmora";
  const char* home = getenv("HOME");
  if (home != nullptr && home[0] != '\0') return std::string(home) + "/.config/pelmora";
  throw CommandError("no home folder: set HOME (or XDG_CONFIG_HOME)");
}

TlsFlags WithFileTransport(TlsFlags flags, const pelmora::TlsClientSettings& file) {
  auto fill = [](std::string& flag, const std::string& value) {
    if (flag.empty()) flag = value;
  };
  flags.tls = flags.tls || file.enabled;
  fill(flags.fingerprint, file.fingerprint);
  fill(flags.ca_file, file.ca_file);
  fill(flags.known_hosts, file.known_hosts);
  if (flags.certificate.empty() && flags.key.empty()) {
    flags.certificate = file.client_certificate;
    flags.key = file.client_key;
  }
  return flags;
}

pelmora::TlsClientSettings ResolveTlsSettings(const TlsFlags& flags, const Environment& getenv) {
  pelmora::TlsClientSettings settings;
  if (!TlsWanted(flags, getenv)) return settings;
  settings.enabled = true;
  if (!flags.fingerprint.empty() && !IsFingerprint(flags.fingerprint)) {
    throw CommandError("--fingerprint takes SHA256: and 43 base64 characters (as `pelmorad "
                       "--show-fingerprint` prints), not \"" + flags.fingerprint + "\"");
  }
  if (flags.certificate.empty() != flags.key.empty()) {
    throw CommandError("--cert and --key go together: give both or neither");
  }
  settings.fingerprint = flags.fingerprint;
  settings.ca_file = flags.ca_file;
  settings.trust_new = flags.trust_new;
  settings.client_certificate = flags.certificate;
  settings.client_key = flags.key;
  const bool pinned = !flags.fingerprint.empty() || !flags.ca_file.empty();
  if (!pinned || !flags.known_hosts.empty()) {
    settings.known_hosts =
        flags.known_hosts.empty() ? ConfigFolder(getenv) + "/known_hosts" : flags.known_hosts;
    const std::string folder = FolderOf(settings.known_hosts);
    if (!folder.empty() && !Exists(folder)) MakePrivateFolder(folder);
  }
  if (settings.client_certificate.empty()) {
    const char* home = getenv("HOME");
    const char* config = getenv("XDG_CONFIG_HOME");
    if (home == nullptr && config == nullptr) return settings;
    const std::string folder = ConfigFolder(getenv);
    if (Exists(folder + "/client.crt") && Exists(folder + "/client.key")) {
      settings.client_certificate = folder + "/client.crt";
      settings.client_key = folder + "/client.key";
    }
  }
  return settings;
}

bool CanAskAboutHost(const pelmora::TlsClientSettings& settings, int32_t number,
                     const std::string& presented) {
  return settings.enabled && !settings.trust_new && settings.fingerprint.empty() &&
         settings.ca_file.empty() && !settings.known_hosts.empty() && !presented.empty() &&
         number == pelmora::tlsCertificateNotTrusted;
}

std::optional<bool> AskOnTerminal(const std::string& where, const std::string& fingerprint,
                                  const std::string& file) {
  static std::mutex one_question;
  std::lock_guard lock(one_question);
  const int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  const std::string question = "The authenticity of host '" + where +
                               "' can't be established.\nIts certificate's fingerprint is " +
                               fingerprint + ".\nTrust it and record it in " + file +
                               "? [y/N] ";
  bool written = write(fd, question.data(), question.size()) ==
                 static_cast<ssize_t>(question.size());
  std::string answer;
  char c = 0;
  // One line, bounded: nothing more than a short answer is read.
  while (written && answer.size() < 64 && read(fd, &c, 1) == 1 && c != '\n') answer += c;
  close(fd);
  return answer == "y" || answer == "Y" || answer == "yes" || answer == "YES" || answer == "Yes";
}

std::string NoTerminalHint() {
  return "no terminal to ask whether to trust it: give --trust-new to record it, or "
         "--fingerprint SHA256:... to pin it";
}

}  // namespace pelmora_tool

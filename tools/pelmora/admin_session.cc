#include "tools/pelmora/admin_session.h"

#include <fcntl.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <optional>

#include "pelmora/admin/mode_wire.h"
#include "pelmora/admin/resume_wire.h"
#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "tools/pelmora/crypto_io.h"
#include "tools/pelmora/log_lines.h"
#include "tools/pelmora/tls_options.h"

namespace pelmora_tool {
namespace {

constexpr int32_t kTimedOut = 10060;  // WSAETIMEDOUT
constexpr int32_t kAddressNotValid = 10049;
constexpr int32_t kRefused = 10061;
constexpr int32_t kAccessDenied = 5;

bool Resolves(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return false;
  freeaddrinfo(found);
  return true;
}

std::string Seconds(int32_t ms) {
  return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

// What a failed connection and login means, in words, for the numbers a user cannot read; ""
// for the others. `where` is "host:port"; `waited_ms` the login answer's time-out.
std::string ConnectCause(int32_t number, const std::string& host, const std::string& where,
                         int32_t waited_ms) {
  switch (number) {
    case kAddressNotValid:  // also the number of a failed look-up
      return Resolves(host) ? "" : "host name not found: " + host;
    case kRefused:
      return "nothing accepts connections on " + where;
    case kTimedOut:
      return "no login answer from " + where + " within " + Seconds(waited_ms);
    case pelmora::tlsChannelError:
      return "is the port " + where + " a TLS port of the service? A plain port needs no --tls";
    case kAccessDenied:
      return "login refused: this address is locked out for a while after repeated failed "
             "logins, or the service has no free session";
    default:
      return "";
  }
}

// The parent folder of a server path ("C:\\a" for "C:\\a\\b"), "" when it is the drive's root.
std::string ParentFolder(const std::string& path) {
  size_t slash = path.find_last_of("\\/");
  return slash == std::string::npos || slash < 3 ? "" : path.substr(0, slash);
}

std::string FromBytes(Bytes bytes) {
  std::string text(bytes.begin(), bytes.end());
  Wipe(bytes);
  return text;
}

// A secret from `file` (without its line end), else from the environment variable `variable`;
// "" when neither is given.
std::string FileOrEnvironment(const std::string& file, const char* variable) {
  if (!file.empty()) return FromBytes(ReadPassword(file, ""));
  const char* value = std::getenv(variable);
  return value == nullptr ? "" : value;
}

// Whether a TCP connection to host:port is still not made after `timeout_ms`, found with a trial
// connection of its own (closed at once) before the library's, which waits as long as the
// system does. Resolution failures and refusals are not a time-out: the library's own connect
// reports them.
bool ConnectTimesOut(const std::string& host, int32_t port, int32_t timeout_ms) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return false;
  // A loopback connection is made or refused at once: no need for a trial connection.
  const auto* address = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
  if ((ntohl(address->sin_addr.s_addr) >> 24) == 127) {
    freeaddrinfo(found);
    return false;
  }
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  bool timed_out = false;
  if (fd >= 0 && connect(fd, found->ai_addr, found->ai_addrlen) != 0 && errno == EINPROGRESS) {
    pollfd waiting{fd, POLLOUT, 0};
    int ready = 0;
    do {
      ready = poll(&waiting, 1, timeout_ms);
    } while (ready < 0 && errno == EINTR);
    timed_out = ready == 0;
  }
  if (fd >= 0) close(fd);
  freeaddrinfo(found);
  return timed_out;
}

}  // namespace

namespace {
constexpr char kCertificatePassword[] = "client certificate";
}  // namespace

Credentials ResolveCredentials(const AdminOptions& options, bool needs_access_code) {
  Credentials credentials;
  credentials.account = options.account;
  if (!options.account.empty()) {
    credentials.password = FileOrEnvironment(options.password_file, "PELMORA_PASSWORD");
    // A client certificate over TLS logs in the accounts that list it without a password.
    const bool certificate = options.tls.enabled && !options.tls.client_certificate.empty();
    if (credentials.password.empty() && certificate) {
      // The login message still carries a password field; the service ignores it for an
      // account that lists the certificate (and refuses this one otherwise).
      credentials.password = kCertificatePassword;
      return credentials;
    }
    if (credentials.password.empty()) {
      credentials.password =
          FromBytes(ReadPassword("", "Password for " + options.account + ": "));
    }
    return credentials;
  }
  if (!needs_access_code) return credentials;
  credentials.access_code = FileOrEnvironment(options.access_code_file, "PELMORA_ACCESS_CODE");
  if (credentials.access_code.empty()) {
    throw CommandError(
        "exec with the built-in account needs the command access code: give "
        "--access-code-file FILE or set PELMORA_ACCESS_CODE");
  }
  return credentials;
}

std::string HostFailure::Text() const {
  std::string text = number == 0 ? description : std::to_string(number) + " " + description;
  return detail.empty() ? text : text + " (" + detail + ")";
}

std::string ErrorLine(std::string_view host, const HostFailure& failure) {
  if (failure.local) return "pelmora: " + failure.Text() + " (from " + std::string(host) + ")";
  return "pelmora: " + std::string(host) + ": " + failure.Text();
}

HostSession::HostSession(HostTarget target, const AdminOptions& options,
                         const Credentials& credentials, HostOutput& output)
    : target_(std::move(target)),
      display_(target_.Display()),
      options_(options),
      credentials_(credentials),
      output_(output),
      client_(std::make_unique<pelmora::admin::AdminClient>()) {
  if (target_.port == 0) target_.port = options.port;
  // The library's lines go where `pelmora log tail` looks for them.
  std::string log_root = ToolLogRoot();
  MakeLogRoot(log_root);
  Fso().SetLogPath(log_root);
}

HostSession::~HostSession() = default;

bool HostSession::Connect() {
  const int32_t connect_limit = options_.connect_timeout_ms;
  const std::string& name = options_.address.empty() ? target_.name : options_.address;
  const std::string where = name + ":" + std::to_string(target_.port);
  const bool verbose = options_.verbose;
  if (verbose) {
    output_.Step("connecting to " + where +
                 (connect_limit > 0 ? " (time-out " + Seconds(connect_limit) + ")" : ""));
  }
  if (connect_limit > 0 && ConnectTimesOut(name, target_.port, connect_limit)) {
    Fail(kExitConnect, {kTimedOut, pelmora::DescribeError(kTimedOut) + " (no connection to " +
                                       where + " within " + Seconds(connect_limit) + ")"});
    return false;
  }
  Fso().set_timeout(connect_limit > 0 ? connect_limit : options_.timeout_ms);
  Client().SetServicePort(target_.port);
  if (verbose) {
    output_.Step(credentials_.account.empty() ? "logging in with the built-in account"
                                              : "logging in as " + credentials_.account);
  }
  Fso().set_tls(options_.tls);
  std::string trust_hint;
  bool logged_in = LogIn(name);
  const std::string presented = Fso().PresentedFingerprint();
  if (!logged_in && CanAskAboutHost(options_.tls, Fso().ErrCode(), presented)) {
    const std::optional<bool> trusted = AskOnTerminal(where, presented, options_.tls.known_hosts);
    trust_hint = !trusted ? NoTerminalHint() : *trusted ? "" : "not trusted: the answer was no";
    if (trusted == true) {
      // Exactly the certificate the user was shown is accepted and recorded.
      pelmora::TlsClientSettings settings = options_.tls;
      settings.fingerprint = presented;
      settings.trust_new = true;
      Fso().set_tls(std::move(settings));
      logged_in = LogIn(name);
    }
  }
  if (!Fso().PresentedFingerprint().empty()) {
    output_.PresentedFingerprint(Fso().PresentedFingerprint());
    if (verbose) output_.Step("TLS 1.3, the server presented " + Fso().PresentedFingerprint());
  }
  if (!logged_in) {
    HostFailure failure{Fso().ErrCode(), Fso().ErrDescription()};
    std::string cause = ConnectCause(failure.number, name, where,
                                     connect_limit > 0 ? connect_limit : options_.timeout_ms);
    failure.detail = trust_hint.empty() ? cause : trust_hint;
    if (failure.number == 0 && failure.description.empty()) {
      failure.description = "the service refused the login";
    }
    Fail(kExitConnect, failure);
    return false;
  }
  Fso().set_timeout(options_.timeout_ms);
  if (verbose) {
    output_.Step("logged in from " + Fso().getLocalIP() + "; replies wait up to " +
                 Seconds(options_.timeout_ms));
  }
  return true;
}

bool HostSession::LogIn(const std::string& name) {
  return credentials_.account.empty()
             ? Client().Connect(name)
             : Fso().Connect(name, target_.port, credentials_.account, credentials_.password,
                             false);
}

int32_t HostSession::ExtendedVersion() {
  if (!extended_version_) extended_version_ = Fso().ExtendedCommandVersion();
  return *extended_version_;
}

bool HostSession::KeepsModes() { return ExtendedVersion() >= pelmora::admin::kModeVersion; }

bool HostSession::Resumes() { return ExtendedVersion() >= pelmora::admin::kResumeVersion; }

int HostSession::FailFromClient(int status) {
  if (Fso().ErrCode() == 0 && Fso().ErrDescription().empty()) {
    return Fail(status, {0, "the service refused the request"});
  }
  return Fail(status, {Fso().ErrCode(), Fso().ErrDescription()});
}

int HostSession::FailOnPath(int status, const std::string& path, const std::string& folder_hint,
                            bool reading) {
  HostFailure failure{Fso().ErrCode(), Fso().ErrDescription()};
  if (failure.number == 0 && failure.description.empty()) {
    failure.description = "the service refused the request";
  }
  // Socket errors leave no session to ask.
  if (failure.number >= 10000 && failure.number < 12000) return Fail(status, failure);
  // Each question's answer; nullopt when the service could not answer (then nothing is guessed).
  using Test = bool (pelmora::admin::RCFSO::*)(std::string_view);
  auto ask = [this](Test test, const std::string& asked) -> std::optional<bool> {
    if ((Fso().*test)(asked)) return true;
    int32_t code = Fso().ErrCode();
    if (code == 0 || code == 2 || code == 3) return false;
    return std::nullopt;
  };
  using pelmora::admin::RCFSO;
  std::string cause;
  bool drive_form = path.size() >= 2 && path[1] == ':' && std::isalpha(static_cast<unsigned char>(path[0]));
  std::string parent = ParentFolder(path);
  std::optional<bool> answer;
  if (!drive_form) {
    cause = "server paths begin with a drive, as C:\\";
  } else if ((answer = ask(&RCFSO::FolderExists, path.substr(0, 2) + "\\")) != true) {
    if (answer) cause = "the server has no drive " + path.substr(0, 2);
  } else if ((answer = ask(&RCFSO::FolderExists, path)) != false) {
    if (answer) cause = "a folder" + (folder_hint.empty() ? "" : ": " + folder_hint);
  } else if ((answer = ask(&RCFSO::FileExists, path)) != false) {
    if (answer) cause = "a file";
  } else if (!parent.empty() && (answer = ask(&RCFSO::FolderExists, parent)) != true) {
    if (answer) cause = "no folder " + parent;
  } else if (reading) {
    cause = "not there";
  }
  if (cause.empty()) return Fail(status, failure);
  failure.detail = path + ": " + cause;
  return Fail(status, failure);
}

int HostSession::Fail(int status, HostFailure failure) {
  output_.Fail(failure);
  return status;
}

int RunOnHost(const HostTarget& target, const AdminOptions& options,
              const Credentials& credentials, HostOutput& output, const HostRequest& request) {
  HostSession session(target, options, credentials, output);
  try {
    if (!session.Connect()) return kExitConnect;
    return request(session);
  } catch (const pelmora::Error& e) {
    return session.Fail(kExitFailed, {e.Number(), e.Description()});
  }
}

}  // namespace pelmora_tool

#include "tools/pelmora/host_defaults.h"

#include <fmt/format.h>

#include <vector>

#include "tools/pelmora/crypto_io.h"
#include "tools/pelmora/host_list.h"

namespace pelmora_tool {
namespace {

// A variable's value; nullopt when it is unset or empty (an empty variable names nothing).
std::optional<std::string> Variable(const GetEnvironment& getenv, const char* name) {
  const char* value = getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return std::string(value);
}

int32_t PortVariable(const std::string& text) {
  bool digits = !text.empty() && text.size() <= 5 &&
                text.find_first_not_of("0123456789") == std::string::npos;
  int32_t port = digits ? std::stoi(text) : 0;
  if (port < 1 || port > 65535) {
    throw CommandError(fmt::format("PELMORA_PORT: bad port \"{}\" (1-65535)", text));
  }
  return port;
}

}  // namespace

HostSpec ParseHostSpec(std::string_view text, std::string_view origin) {
  HostSpec given;
  size_t at = text.rfind('@');
  if (at != std::string_view::npos) {
    given.account = std::string(text.substr(0, at));
    if (given.account.empty()) {
      throw CommandError(fmt::format("{}: an empty account before '@' in \"{}\"", origin, text));
    }
    text = text.substr(at + 1);
  }
  std::vector<HostTarget> hosts;
  try {
    hosts = ParseHostList(text);
  } catch (const CommandError& e) {
    throw CommandError(fmt::format("{}: {}", origin, e.what()));
  }
  if (hosts.empty()) throw CommandError(fmt::format("{} names no host", origin));
  if (hosts.size() > 1) {
    throw CommandError(fmt::format("{} names one host (\"{}\" is {}): use --hosts for several",
                                   origin, text, hosts.size()));
  }
  given.name = hosts[0].name;
  given.port = hosts[0].port;
  return given;
}

namespace {

// The first of `values` that is set.
template <typename T>
std::optional<T> First(std::initializer_list<std::optional<T>> values) {
  for (const std::optional<T>& value : values) {
    if (value) return value;
  }
  return std::nullopt;
}

std::optional<std::string> NonEmpty(const std::string& text) {
  return text.empty() ? std::nullopt : std::optional<std::string>(text);
}

std::optional<int32_t> NonZero(int32_t port) {
  return port == 0 ? std::nullopt : std::optional<int32_t>(port);
}

// A key of the host's section, else of the top level.
template <typename T>
std::optional<T> FromFile(const FileSettings* section, const FileSettings& defaults,
                          std::optional<T> FileSettings::*key) {
  return section != nullptr && section->*key ? section->*key : defaults.*key;
}

// The destination a `host` key of the defaults file gives; empty when it gives none.
HostSpec FileHost(const DefaultsFile& file, const std::optional<std::string>& host,
                  std::string_view key) {
  if (!host) return {};
  return ParseHostSpec(*host, fmt::format("{}: {}", file.path, key));
}

}  // namespace

ConnectDefaults ChooseConnectDefaults(const HostFlags& flags, const GetEnvironment& getenv,
                                      int32_t default_port, const DefaultsFile& file) {
  HostSpec given;  // from --host or PELMORA_HOST
  if (flags.host) {
    given = ParseHostSpec(*flags.host, "--host");
    if (flags.account && !given.account.empty() && given.account != *flags.account) {
      throw CommandError(fmt::format("--host names the account {} and --account {}: give one",
                                     given.account, *flags.account));
    }
    if (flags.port && given.port != 0 && given.port != *flags.port) {
      throw CommandError(fmt::format("--host names the port {} and --port {}: give one",
                                     given.port, *flags.port));
    }
  } else if (auto host = Variable(getenv, "PELMORA_HOST")) {
    given = ParseHostSpec(*host, "PELMORA_HOST");
  }
  // The top level's host, with its account and port, is used only when no other host is given.
  HostSpec top = given.name.empty() ? FileHost(file, file.defaults.host, "host") : HostSpec{};
  ConnectDefaults chosen;
  chosen.host = !given.name.empty() ? given.name : !top.name.empty() ? top.name : "localhost";
  const FileSettings* section = file.Section(chosen.host);
  HostSpec real;  // what the section's own `host` says
  if (section != nullptr) {
    real = FileHost(file, section->host, fmt::format("hosts.{}.host", chosen.host));
    if (!real.name.empty() && real.name != chosen.host) chosen.address = real.name;
  }
  const std::optional<std::string> env_port = Variable(getenv, "PELMORA_PORT");
  // The account and port written into a host name that is used win over the variables.
  chosen.account = First<std::string>({flags.account, NonEmpty(given.account),
                                       Variable(getenv, "PELMORA_ACCOUNT"), NonEmpty(real.account),
                                       section ? section->account : std::nullopt,
                                       NonEmpty(top.account), file.defaults.account})
                       .value_or("");
  std::optional<int32_t> port = First<int32_t>(
      {flags.port, NonZero(given.port),
       env_port ? std::optional<int32_t>(PortVariable(*env_port)) : std::nullopt,
       NonZero(real.port), section ? section->port : std::nullopt, NonZero(top.port),
       file.defaults.port});
  chosen.port = port.value_or(default_port);
  return chosen;
}

void ApplyDefaultsFile(const DefaultsFile& file, const std::string& alias,
                       const OptionFlags& given, const GetEnvironment& getenv,
                       AdminOptions& options) {
  const FileSettings* section = alias.empty() ? nullptr : file.Section(alias);
  auto password_file = FromFile(section, file.defaults, &FileSettings::password_file);
  if (!given.password_file && !Variable(getenv, "PELMORA_PASSWORD") && password_file) {
    options.password_file = *password_file;
  }
  auto access_code_file = FromFile(section, file.defaults, &FileSettings::access_code_file);
  if (!given.access_code_file && !Variable(getenv, "PELMORA_ACCESS_CODE") && access_code_file) {
    options.access_code_file = *access_code_file;
  }
  auto timeout = FromFile(section, file.defaults, &FileSettings::timeout_ms);
  if (!given.timeout && timeout) options.timeout_ms = *timeout;
  auto connect_timeout = FromFile(section, file.defaults, &FileSettings::connect_timeout_ms);
  if (!given.connect_timeout && connect_timeout) options.connect_timeout_ms = *connect_timeout;
  if (!alias.empty()) ApplyFileTransport(section, file.defaults, options.tls);
}

AdminOptions FleetHostOptions(const DefaultsFile& file, HostTarget& target,
                              const AdminOptions& run, const FleetGiven& given,
                              const GetEnvironment& getenv) {
  AdminOptions options = run;
  const FileSettings* section = file.Section(target.name);
  ApplyFileTransport(section, file.defaults, options.tls);
  if (section == nullptr) return options;
  HostSpec real = FileHost(file, section->host, fmt::format("hosts.{}.host", target.name));
  if (!real.name.empty() && real.name != target.name) options.address = real.name;
  if (target.port == 0) target.port = NonZero(real.port).value_or(section->port.value_or(0));
  if (!given.account) {
    options.account = First<std::string>({NonEmpty(real.account), section->account})
                          .value_or(run.account);
  }
  const GetEnvironment no_variables = [](const char*) -> const char* { return nullptr; };
  ApplyDefaultsFile(file, target.name, given.options, getenv ? getenv : no_variables, options);
  return options;
}

}  // namespace pelmora_tool

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

ConnectDefaults ChooseConnectDefaults(const HostFlags& flags, const GetEnvironment& getenv,
                                      int32_t default_port) {
  HostSpec given{"", "localhost", 0};
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
  ConnectDefaults chosen{given.name, given.account, given.port};
  // The account and port written into the host name that is used win over the variables.
  if (flags.account) {
    chosen.account = *flags.account;
  } else if (chosen.account.empty()) {
    chosen.account = Variable(getenv, "PELMORA_ACCOUNT").value_or("");
  }
  if (flags.port) {
    chosen.port = *flags.port;
  } else if (chosen.port == 0) {
    auto port = Variable(getenv, "PELMORA_PORT");
    chosen.port = port ? PortVariable(*port) : default_port;
  }
  return chosen;
}

}  // namespace pelmora_tool

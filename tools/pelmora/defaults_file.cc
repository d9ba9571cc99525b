#include "tools/pelmora/defaults_file.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <toml++/toml.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "pelmora/common/closest_name.h"
#include "tools/pelmora/crypto_io.h"

namespace pelmora_tool {
namespace {

const std::vector<std::string>& KnownKeys() {
  static const std::vector<std::string> keys = {
      "host",    "account",         "port", "password_file", "access_code_file",
      "timeout", "connect_timeout", "tls",  "fingerprint",   "ca_file",
      "known_hosts", "client_cert", "client_key"};
  return keys;
}

// Reads one table's keys into settings, refusing what it does not know.
class SettingsReader {
 public:
  SettingsReader(const std::string& path, const GetEnvironment& getenv)
      : path_(path), getenv_(getenv) {}

  FileSettings Read(const toml::table& table, const std::string& prefix,
                    bool hosts_allowed) const {
    FileSettings s;
    for (const auto& [key, node] : table) {
      std::string name(key.str());
      int line = static_cast<int>(key.source().begin.line);
      if (hosts_allowed && name == "hosts") continue;
      if (name == "host") s.host = Text(node, line, prefix + name);
      else if (name == "account") s.account = Text(node, line, prefix + name);
      else if (name == "port") s.port = Number(node, line, prefix + name, 1, 65535);
      else if (name == "password_file") s.password_file = FilePath(node, line, prefix + name);
      else if (name == "access_code_file") s.access_code_file = FilePath(node, line, prefix + name);
      else if (name == "timeout") s.timeout_ms = Number(node, line, prefix + name, 0, INT32_MAX);
      else if (name == "connect_timeout") {
        s.connect_timeout_ms = Number(node, line, prefix + name, 0, INT32_MAX);
      } else if (name == "tls") {
        if (!node.is_boolean()) Fail(line, prefix + name + " must be true or false");
        s.tls = *node.value<bool>();
      } else if (name == "fingerprint") s.fingerprint = Text(node, line, prefix + name);
      else if (name == "ca_file") s.ca_file = FilePath(node, line, prefix + name);
      else if (name == "known_hosts") s.known_hosts = FilePath(node, line, prefix + name);
      else if (name == "client_cert") s.client_cert = FilePath(node, line, prefix + name);
      else if (name == "client_key") s.client_key = FilePath(node, line, prefix + name);
      else Unknown(name, line, prefix, hosts_allowed);
    }
    return s;
  }

  [[noreturn]] void Fail(int line, const std::string& what) const {
    throw CommandError(fmt::format("{}: line {}: {}", path_, line, what));
  }

 private:
  [[noreturn]] void Unknown(const std::string& name, int line, const std::string& prefix,
                            bool hosts_allowed) const {
    std::vector<std::string> known = KnownKeys();
    if (hosts_allowed) known.push_back("hosts");
    std::string near = pelmora::ClosestName(name, known);
    Fail(line, "unknown key " + prefix + name + (near.empty() ? "" : " (did you mean " + near + "?)"));
  }

  std::string Text(const toml::node& node, int line, const std::string& key) const {
    if (!node.is_string() || node.value<std::string_view>()->empty()) {
      Fail(line, key + " must be a non-empty text in quotes");
    }
    return std::string(*node.value<std::string_view>());
  }

  int32_t Number(const toml::node& node, int line, const std::string& key, int64_t low,
                 int64_t high) const {
    std::optional<int64_t> value = node.is_integer() ? node.value<int64_t>() : std::nullopt;
    if (!value || *value < low || *value > high) {
      Fail(line, fmt::format("{} must be a whole number {}-{}", key, low, high));
    }
    return static_cast<int32_t>(*value);
  }

  // "~/x" from $HOME, a relative path from the defaults file's folder.
  std::string FilePath(const toml::node& node, int line, const std::string& key) const {
    std::string text = Text(node, line, key);
    if (text.rfind("~/", 0) == 0) {
      const char* home = getenv_("HOME");
      if (home == nullptr || *home == '\0') Fail(line, key + ": \"~/\" but HOME is not set");
      return std::string(home) + text.substr(1);
    }
    if (text[0] == '/') return text;
    size_t slash = path_.rfind('/');
    return slash == std::string::npos ? text : path_.substr(0, slash + 1) + text;
  }

  const std::string& path_;
  const GetEnvironment& getenv_;
};

// Refuses a defaults file that someone else could have written, as ssh refuses its own.
void CheckOwnership(const std::string& path, const struct stat& info) {
  if (info.st_uid != 0 && info.st_uid != ::geteuid()) {
    throw CommandError(fmt::format("{}: refused, it belongs to another user (uid {})", path,
                                   info.st_uid));
  }
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw CommandError(fmt::format(
        "{}: refused, others may write to it (mode {:03o}): chmod go-w {}", path,
        info.st_mode & 0777, path));
  }
}

}  // namespace

const FileSettings* DefaultsFile::Section(std::string_view alias) const {
  auto found = hosts.find(alias);
  return found == hosts.end() ? nullptr : &found->second;
}

std::string DefaultsFilePath(const GetEnvironment& getenv) {
  const char* config = getenv("XDG_CONFIG_HOME");
  if (config != nullptr && config[0] == '/') return std::string(config) + "/pelmora/config.toml";
  const char* home = getenv("HOME");
  if (home == nullptr || *home == '\0') return "";
  return std::string(home) + "/.config/pelmora/config.toml";
}

DefaultsFile ReadDefaultsFile(const std::string& path, const GetEnvironment& getenv) {
  if (path.empty()) return {};
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return {};
    throw CommandError(fmt::format("{}: {}", path, std::strerror(errno)));
  }
  CheckOwnership(path, info);
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  if (!(text << in.rdbuf()) && in.bad()) {
    throw CommandError(fmt::format("{}: cannot be read", path));
  }
  return ParseDefaultsFile(text.str(), path, getenv);
}

DefaultsFile ParseDefaultsFile(std::string_view text, const std::string& path,
                               const GetEnvironment& getenv) {
  toml::table root;
  try {
    root = toml::parse(text, path);
  } catch (const toml::parse_error& error) {
    throw CommandError(
        fmt::format("{}: line {}: {}", path, error.source().begin.line, error.description()));
  }
  SettingsReader reader(path, getenv);
  DefaultsFile file;
  file.path = path;
  file.defaults = reader.Read(root, "", /*hosts_allowed=*/true);
  const toml::node* hosts = root.get("hosts");
  if (hosts == nullptr) return file;
  if (!hosts->is_table()) {
    reader.Fail(static_cast<int>(hosts->source().begin.line),
                "hosts must be sections: [hosts.NAME]");
  }
  for (const auto& [name, node] : *hosts->as_table()) {
    int line = static_cast<int>(name.source().begin.line);
    if (!node.is_table()) {
      reader.Fail(line, fmt::format("hosts.{} must be a section: [hosts.{}]", name.str(),
                                    name.str()));
    }
    std::string prefix = fmt::format("hosts.{}.", name.str());
    file.hosts.emplace(std::string(name.str()), reader.Read(*node.as_table(), prefix, false));
  }
  return file;
}

void ApplyFileTransport(const FileSettings* section, const FileSettings& defaults,
                        pelmora::TlsClientSettings& tls) {
  auto pick = [&](std::optional<std::string> FileSettings::*key, std::string& field) {
    if (!field.empty()) return;
    if (section != nullptr && (section->*key)) field = *(section->*key);
    else if (defaults.*key) field = *(defaults.*key);
  };
  if (!tls.enabled) {
    tls.enabled = section != nullptr && section->tls ? *section->tls : defaults.tls.value_or(false);
  }
  pick(&FileSettings::fingerprint, tls.fingerprint);
  pick(&FileSettings::ca_file, tls.ca_file);
  pick(&FileSettings::known_hosts, tls.known_hosts);
  pick(&FileSettings::client_cert, tls.client_certificate);
  pick(&FileSettings::client_key, tls.client_key);
}

}  // namespace pelmora_tool

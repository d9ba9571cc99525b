// The service's configuration text: parsing and checking every table and key of the TOML file,
// and the look-ups a parsed configuration answers (accounts, path keys, drive paths).
#include "pelmorad/config.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>

#include "pelmora/common/error.h"
#include "pelmora/common/closest_name.h"

namespace pelmorad {
namespace {

constexpr int kInvalidConfig = 87;

[[noreturn]] void Fail(std::string_view source, std::string_view what) {
  throw pelmora::Error(kInvalidConfig, fmt::format("{}: {}", source, what), "pelmorad");
}

std::string Text(const toml::node_view<const toml::node>& node, std::string_view source,
                 std::string_view key, std::string fallback) {
  if (!node) return fallback;
  if (!node.is_string()) Fail(source, fmt::format("{} must be a string", key));
  return std::string(*node.value<std::string_view>());
}

bool Flag(const toml::node_view<const toml::node>& node, std::string_view source,
          std::string_view key, bool fallback) {
  if (!node) return fallback;
  if (!node.is_boolean()) Fail(source, fmt::format("{} must be true or false", key));
  return *node.value<bool>();
}

std::vector<std::string> TextList(const toml::node_view<const toml::node>& node,
                                  std::string_view source, std::string_view key) {
  std::vector<std::string> out;
  const toml::array* array = node.as_array();
  if (array == nullptr) Fail(source, fmt::format("{} must be a list of strings", key));
  for (const toml::node& item : *array) {
    if (!item.is_string()) Fail(source, fmt::format("{} must be a list of strings", key));
    out.emplace_back(*item.value<std::string_view>());
  }
  return out;
}

char DriveLetter(std::string_view text, std::string_view source) {
  if (text.size() != 1 || !std::isalpha(static_cast<unsigned char>(text[0]))) {
    Fail(source, fmt::format("drive \"{}\" is not a single letter", text));
  }
  return static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
}

void ReadDrives(const toml::table& root, std::string_view source, Config& config) {
  const toml::table* drives = root["drives"].as_table();
  if (drives == nullptr) return;
  for (const auto& [key, value] : *drives) {
    char letter = DriveLetter(key.str(), source);
    if (!value.is_string()) Fail(source, fmt::format("drives.{} must be a string", key.str()));
    std::string folder(*value.value<std::string_view>());
    if (folder.empty() || folder[0] != '/') {
      Fail(source, fmt::format("drives.{} must be an absolute folder", key.str()));
    }
    config.drives[letter] = folder;
  }
}

void ReadPaths(const toml::table& root, std::string_view source, Config& config) {
  const toml::table* paths = root["paths"].as_table();
  if (paths == nullptr) return;
  for (const auto& [key, value] : *paths) {
    if (!value.is_string()) Fail(source, fmt::format("paths.{} must be a string", key.str()));
    config.paths.emplace_back(std::string(key.str()), *value.value<std::string>());
  }
}

// "SHA256:" and the 43 base64 characters (without padding) of a SHA-256 digest.
bool IsFingerprint(std::string_view text) {
  constexpr std::string_view kPrefix = "SHA256:";
  constexpr std::size_t kDigits = 43;
  if (text.size() != kPrefix.size() + kDigits || !text.starts_with(kPrefix)) return false;
  return std::all_of(text.begin() + kPrefix.size(), text.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '/';
  });
}

Account ReadAccount(std::string_view name, const toml::table& table, std::string_view source) {
  Account account;
  account.name = name;
  std::string prefix = fmt::format("accounts.{}.", name);
  toml::node_view<const toml::node> view(table);
  account.password_hash = Text(view["password"], source, prefix + "password", "");
  if (account.password_hash.empty() || account.password_hash[0] != '$') {
    Fail(source, prefix + "password must be a crypt(3) hash (pelmorad --hash-password)");
  }
  if (view["drives"]) {
    for (const std::string& letter : TextList(view["drives"], source, prefix + "drives")) {
      account.drives.push_back(DriveLetter(letter, source));
    }
    if (account.drives.empty()) Fail(source, prefix + "drives must name at least one drive");
  }
  account.read_only = Flag(view["read_only"], source, prefix + "read_only", false);
  account.commands = Flag(view["commands"], source, prefix + "commands", false);
  account.tasks = Flag(view["tasks"], source, prefix + "tasks", false);
  account.run_as = Text(view["run_as"], source, prefix + "run_as", "");
  account.working_folder = Text(view["working_folder"], source, prefix + "working_folder", "/");
  account.require_tls = Flag(view["require_tls"], source, prefix + "require_tls", false);
  if (view["client_certificates"]) {
    account.client_certificates =
        TextList(view["client_certificates"], source, prefix + "client_certificates");
    for (const std::string& fingerprint : account.client_certificates) {
      if (!IsFingerprint(fingerprint)) {
        Fail(source, fmt::format("{}client_certificates: \"{}\" is not a fingerprint of the form "
                                 "SHA256: followed by 43 base64 characters",
                                 prefix, fingerprint));
      }
    }
  }
  return account;
}

void ReadAccounts(const toml::table& root, std::string_view source, Config& config) {
  const toml::table* accounts = root["accounts"].as_table();
  if (accounts == nullptr) return;
  for (const auto& [key, value] : *accounts) {
    const toml::table* table = value.as_table();
    if (table == nullptr) Fail(source, fmt::format("accounts.{} must be a table", key.str()));
    Account account = ReadAccount(key.str(), *table, source);
    for (char letter : account.drives) {
      if (!config.drives.contains(letter)) {
        Fail(source, fmt::format("accounts.{} names the unmapped drive {}", key.str(), letter));
      }
    }
    config.accounts[account.name] = std::move(account);
  }
}

void ReadLimit(const toml::table& limits, std::string_view key, std::string_view source, int low,
               int high, int& value) {
  toml::node_view<const toml::node> node = limits[key];
  if (!node) return;
  std::optional<int64_t> number = node.value<int64_t>();
  if (!node.is_integer() || !number || *number < low || *number > high) {
    Fail(source, fmt::format("limits.{} must be a whole number from {} to {}", key, low, high));
  }
  value = static_cast<int>(*number);
}

void ReadLimits(const toml::table& root, std::string_view source, Limits& limits) {
  const toml::table* table = root["limits"].as_table();
  if (table == nullptr) return;
  ReadLimit(*table, "sessions", source, 1, 100000, limits.sessions);
  ReadLimit(*table, "sessions_per_address", source, 1, 100000, limits.sessions_per_address);
  ReadLimit(*table, "commands", source, 0, 10000, limits.commands);
  ReadLimit(*table, "request_bytes", source, 1500, 16 << 20, limits.request_bytes);
  ReadLimit(*table, "path_length", source, 3, 32767, limits.path_length);
  ReadLimit(*table, "idle_seconds", source, 1, 86400, limits.idle_seconds);
  ReadLimit(*table, "login_failures", source, 1, 1000, limits.login_failures);
  ReadLimit(*table, "lockout_seconds", source, 0, 86400, limits.lockout_seconds);
  ReadLimit(*table, "login_delay_ms", source, 0, 60000, limits.login_delay_ms);
  ReadLimit(*table, "login_delay_max_ms", source, 0, 3600000, limits.login_delay_max_ms);
  ReadLimit(*table, "grace_seconds", source, 0, 3600, limits.grace_seconds);
  ReadLimit(*table, "workers", source, 1, 64, limits.workers);
  ReadLimit(*table, "print_queue_seconds", source, 1, 3600, limits.print_queue_seconds);
  ReadLimit(*table, "login_grace_seconds", source, 1, 3600, limits.login_grace_seconds);
  ReadLimit(*table, "unauthenticated", source, 1, 100000, limits.unauthenticated);
  ReadLimit(*table, "unauthenticated_start", source, 1, 100000, limits.unauthenticated_start);
  if (limits.unauthenticated_start > limits.unauthenticated) {
    Fail(source, "limits.unauthenticated_start must not exceed limits.unauthenticated");
  }
}

void ReadScheduler(const toml::table& root, std::string_view source, Config& config) {
  toml::node_view<const toml::node> scheduler = root["scheduler"];
  config.scheduler.enabled = Flag(scheduler["enabled"], source, "scheduler.enabled", false);
  config.scheduler.folder = Text(scheduler["folder"], source, "scheduler.folder", "");
  if (config.scheduler.enabled && !config.LinuxPathOf(config.scheduler.folder)) {
    Fail(source, "scheduler.folder must be a drive path beneath a mapped drive, such as "
                 "'C:\\pelmora\\tasks'");
  }
}

void ReadTransport(const toml::table& root, std::string_view source, Config& config) {
  toml::node_view<const toml::node> parsed(root);
  if (parsed["listen_tls"]) {
    config.listen_tls = TextList(parsed["listen_tls"], source, "listen_tls");
  }
  config.tls_only = Flag(parsed["tls_only"], source, "tls_only", false);
  if (config.tls_only && config.listen_tls.empty()) {
    Fail(source, "tls_only turns the plain listeners off, so listen_tls must name an address");
  }
  config.state_directory =
      Text(parsed["state_directory"], source, "state_directory", config.state_directory);
  if (config.state_directory.empty() || config.state_directory[0] != '/') {
    Fail(source, "state_directory must be an absolute folder");
  }
  config.tls.certificate = Text(parsed["tls"]["certificate"], source, "tls.certificate", "");
  config.tls.key = Text(parsed["tls"]["key"], source, "tls.key", "");
  if (config.tls.certificate.empty() != config.tls.key.empty()) {
    Fail(source, "tls.certificate and tls.key go together: give both or neither");
  }
}

void ReadSystem(const toml::table& root, std::string_view source, Config& config) {
  toml::node_view<const toml::node> system = root["system"];
  config.system_directory =
      Text(system["directory"], source, "system.directory", config.system_directory);
  config.print_queue_command =
      Text(system["print_queue_command"], source, "system.print_queue_command", "");
  config.shell = Text(system["shell"], source, "system.shell", config.shell);
  if (config.shell.empty() || config.shell[0] != '/') {
    Fail(source, "system.shell must be an absolute program path");
  }
}

// The keys each table may hold; "*" takes any key (the table checks its own).
const std::map<std::string, std::vector<std::string>>& KnownKeys() {
  static const std::map<std::string, std::vector<std::string>> keys = {
      {"",
       {"listen", "listen_tls", "tls_only", "state_directory", "tls", "drives", "paths", "system",
        "scheduler", "accounts", "limits"}},
      {"tls", {"certificate", "key"}},
      {"drives", {"*"}},
      {"paths", {"*"}},
      {"system", {"directory", "print_queue_command", "shell"}},
      {"scheduler", {"enabled", "folder"}},
      {"accounts", {"*"}},
      {"account",
       {"password", "drives", "read_only", "commands", "tasks", "run_as", "working_folder",
        "require_tls", "client_certificates"}},
      {"limits",
       {"sessions", "sessions_per_address", "commands", "request_bytes", "path_length",
        "idle_seconds", "login_failures", "lockout_seconds", "login_delay_ms", "grace_seconds",
        "workers", "print_queue_seconds", "login_grace_seconds", "unauthenticated", "login_delay_max_ms",
        "unauthenticated_start"}},
  };
  return keys;
}

// Refuses a key `kind`'s table does not know, naming its line and the nearest known key.
void CheckKeys(const toml::table& table, const std::string& kind, const std::string& prefix,
               std::string_view source) {
  const std::vector<std::string>& known = KnownKeys().at(kind);
  if (known.size() == 1 && known[0] == "*") return;
  for (const auto& [key, value] : table) {
    std::string name(key.str());
    if (std::find(known.begin(), known.end(), name) != known.end()) continue;
    std::string hint = pelmora::ClosestName(name, known);
    Fail(source, fmt::format("line {}: unknown key {}{}{}", key.source().begin.line, prefix, name,
                             hint.empty() ? "" : fmt::format(" (did you mean {}?)", hint)));
  }
}

void CheckAllKeys(const toml::table& root, std::string_view source) {
  CheckKeys(root, "", "", source);
  for (const char* kind : {"system", "scheduler", "limits", "tls"}) {
    if (const toml::table* table = root[kind].as_table()) {
      CheckKeys(*table, kind, std::string(kind) + ".", source);
    }
  }
  if (const toml::table* accounts = root["accounts"].as_table()) {
    for (const auto& [name, value] : *accounts) {
      if (const toml::table* table = value.as_table()) {
        CheckKeys(*table, "account", fmt::format("accounts.{}.", name.str()), source);
      }
    }
  }
}

}  // namespace

bool Account::MayUseDrive(char letter) const {
  return drives.empty() || std::find(drives.begin(), drives.end(), letter) != drives.end();
}

const Account* Config::FindAccount(std::string_view name) const {
  auto found = accounts.find(std::string(name));
  return found == accounts.end() ? nullptr : &found->second;
}

std::optional<std::string> Config::PathForKey(std::string_view key) const {
  auto same = [key](const std::pair<std::string, std::string>& entry) {
    return std::equal(entry.first.begin(), entry.first.end(), key.begin(), key.end(),
                      [](char a, char b) {
                        return std::tolower(static_cast<unsigned char>(a)) ==
                               std::tolower(static_cast<unsigned char>(b));
                      });
  };
  auto found = std::find_if(paths.begin(), paths.end(), same);
  if (found != paths.end()) return found->second;
  if (scheduler.enabled && same({"Tasks", scheduler.folder})) return scheduler.folder;
  return std::nullopt;
}

std::optional<std::string> Config::LinuxPathOf(std::string_view drive_path) const {
  if (drive_path.size() < 3 || drive_path[1] != ':' ||
      (drive_path[2] != '\\' && drive_path[2] != '/')) {
    return std::nullopt;
  }
  auto drive = drives.find(static_cast<char>(std::toupper(static_cast<unsigned char>(drive_path[0]))));
  if (drive == drives.end()) return std::nullopt;
  std::string path = drive->second;
  std::string_view rest = drive_path.substr(3);
  while (!rest.empty()) {
    std::size_t end = rest.find_first_of("\\/");
    std::string_view piece = rest.substr(0, end);
    if (piece == "..") return std::nullopt;
    if (!piece.empty() && piece != ".") path += "/" + std::string(piece);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
  return path;
}

Config ParseConfig(std::string_view text, std::string_view source) {
  toml::table root;
  try {
    root = toml::parse(text, source);
  } catch (const toml::parse_error& error) {
    Fail(source, fmt::format("line {}: {}", error.source().begin.line, error.description()));
  }
  CheckAllKeys(root, source);
  Config config;
  const toml::table& parsed = root;
  if (parsed["listen"]) config.listen = TextList(parsed["listen"], source, "listen");
  ReadTransport(root, source, config);
  ReadDrives(root, source, config);
  ReadPaths(root, source, config);
  ReadSystem(root, source, config);
  ReadScheduler(root, source, config);
  ReadAccounts(root, source, config);
  ReadLimits(root, source, config.limits);
  return config;
}

}  // namespace pelmorad

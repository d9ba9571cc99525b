// `pelmora admin`: the administration service of one host, or of a fleet of hosts at once.
//
//   pelmora admin [--host H] [--port 8002] [--account NAME] [--password-file F] [--timeout MS]
//                 COMMAND ...
//   pelmora admin --hosts 'web[01-40],db1:8003' | --hosts-file F [--parallel N] [--group |
//                 --gather | --json | --output-dir DIR] [--failed-file F] COMMAND ...
//
// Exit status (also each host's in the summary table): 0 success; 1 the request failed or the
// answer is "no"; 2 usage, credentials or local files; 3 the connection or the login failed;
// exec: 4 the command could not start, 5 it ended abnormally, 6 it timed out. A single-host exec
// exits with the remote command's status instead (0-255, 128 + N for signal N) and with 255 for
// any failure of its own. A fleet run exits with 0 only when every host succeeded, otherwise 1.
// Failures print one line:
// "pelmora: <host>: <number> <description>".
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/pelmora/admin_cli.h"
#include "tools/pelmora/crypto_io.h"
#include "tools/pelmora/fleet.h"
#include "tools/pelmora/host_defaults.h"
#include "tools/pelmora/progress.h"

namespace pelmora_tool {
namespace {

constexpr const char* kAdminExamples = R"(Examples:
  pelmora admin --host server time
  PELMORA_ACCESS_CODE=... pelmora admin --host server exec "uname -a"
  pelmora admin --host server --account operator --password-file pw exec -- df -h
  pelmora admin --host server cp -r 'C:\data' 'C:\backup\data'
  pelmora admin --hosts 'web[01-40]' --account operator exec uptime
  pelmora admin --hosts-file fleet.txt --gather --failed-file failed.txt version 'C:\qel\bin\qel.exe'
--host takes ACCOUNT@NAME:PORT as ssh does. What no flag gives comes from PELMORA_HOST (which
may carry ACCOUNT@ and :PORT too), PELMORA_ACCOUNT and PELMORA_PORT, else localhost, the built-in
account and port 8002. PELMORA_ACCOUNT and PELMORA_PORT apply to fleet runs as well. Between
the environment and the built-in defaults: ~/.config/pelmora/config.toml, host aliases and their
settings as ~/.ssh/config gives them (see man pelmora).
Passwords are never taken from the command line: --password-file, PELMORA_PASSWORD or the prompt.
Exit status: 0 success, 1 request failed or "no", 2 usage or credentials, 3 connection or login
failed. exec on one host: the command's own status (0-255, 128 + N for signal N), 255 when
pelmora itself fails (see exec --help). Fleet runs: 0 only when every host succeeded, otherwise
1; each host's status (exec: 4 could not start, 5 ended abnormally, 6 timed out) is in the
report.)";

// One host's results straight to the console.
class ConsoleOutput : public HostOutput {
 public:
  ConsoleOutput(Console& console, std::string host) : console_(console), host_(std::move(host)) {}
  void Write(std::string_view text) override { console_.Out(text); }
  void WriteError(std::string_view text) override { console_.Err(text); }
  void RemoteStatus(std::optional<int> status) override { remote_status_ = status; }
  // A single-host exec's exit status: the remote status, or kExitExecFailure.
  int ExecStatus() const { return remote_status_.value_or(kExitExecFailure); }
  void Fail(const HostFailure& failure) override {
    console_.Err(ErrorLine(host_, failure) + "\n");
  }
  bool ShowsProgress() const override { return console_.StatusEnabled(); }
  void TransferBytes(uint64_t done, uint64_t total) override {
    if (!progress_) progress_ = std::make_unique<TransferProgress>(console_, total);
    progress_->Update(done);
  }
  void TransferEnded() override { progress_.reset(); }
  void Step(std::string_view text) override {
    console_.Err("pelmora: " + host_ + ": " + std::string(text) + "\n");
  }

 private:
  Console& console_;
  std::string host_;
  std::unique_ptr<TransferProgress> progress_;
  std::optional<int> remote_status_;
};

std::vector<HostTarget> FleetHosts(const AdminCli& cli) {
  std::vector<HostTarget> hosts = ParseHostList(cli.hosts);
  if (!cli.hosts_file.empty()) MergeHosts(hosts, ReadHostsFile(cli.hosts_file));
  if (hosts.empty()) {
    throw CommandError(cli.hosts_file.empty() ? "--hosts names no host"
                                              : "no host in --hosts or " + cli.hosts_file);
  }
  return hosts;
}

// Everything a host thread needs, shared so that threads left behind by the overall time-out
// never hold a reference into a finished call.
struct SharedRun {
  AdminOptions options;
  TlsFlags tls;  // the run's TLS flags with the defaults file's top level under them
  DefaultsFile file;
  Credentials credentials;
  HostRequest request;
  FleetGiven given;  // what the command line and the environment fixed for every fleet host
  // The credentials of the fleet hosts whose sections give another account or secret files.
  std::map<std::string, Credentials> host_credentials;
};

// A fleet host's options: its section of the defaults file over the run's.
AdminOptions HostOptions(const SharedRun& run, HostTarget& target) {
  AdminOptions options = FleetHostOptions(run.file, target, run.options, run.given, std::getenv);
  // The host's own section may ask for TLS or another trust than the run's.
  options.tls = ResolveTlsSettings(WithFileTransport(run.tls, options.tls), std::getenv);
  return options;
}

// Reads, before the fleet starts (a prompt must not come from a host's thread), the secrets of
// every host whose section changes the account or the secret files; once per distinct set.
void ResolveHostCredentials(SharedRun& run, const std::vector<HostTarget>& hosts,
                            bool needs_access_code) {
  auto key = [](const AdminOptions& o) {
    return o.account + '\n' + o.password_file + '\n' + o.access_code_file;
  };
  std::map<std::string, Credentials> read = {{key(run.options), run.credentials}};
  for (const HostTarget& host : hosts) {
    if (run.file.Section(host.name) == nullptr) continue;
    HostTarget target = host;
    AdminOptions options = HostOptions(run, target);
    auto [it, added] = read.try_emplace(key(options));
    if (added) it->second = ResolveCredentials(options, needs_access_code);
    run.host_credentials[host.name] = it->second;
  }
}

int RunFleetCommand(const AdminCli& cli, std::vector<HostTarget> hosts,
                    std::shared_ptr<const SharedRun> run, Console& console) {
  FleetOptions fleet = cli.fleet;
  fleet.hosts = std::move(hosts);
  fleet.default_port = cli.options.port;
  fleet.quiet = cli.options.quiet;
  FleetOutcome outcome = RunFleet(
      fleet,
      [run](const HostTarget& given, HostOutput& output) {
        HostTarget target = given;
        AdminOptions options = HostOptions(*run, target);
        auto own = run->host_credentials.find(given.name);
        return RunOnHost(target, options,
                         own != run->host_credentials.end() ? own->second : run->credentials,
                         output, run->request);
      },
      console);
  if (outcome.abandoned > 0) {
    // Hosts still at work would only delay the exit; their connections close with the process.
    std::fflush(nullptr);
    std::_Exit(outcome.status);
  }
  return outcome.status;
}

void AddGlobalOptions(CLI::App& admin, AdminCli& cli) {
  AdminOptions& o = cli.options;
  admin.add_option("--host", o.host,
                   "Host of the administration service, [ACCOUNT@]NAME[:PORT] (else PELMORA_HOST)")
      ->capture_default_str()->each([&cli](const std::string&) { cli.host_given = true; });
  admin.add_option("--port", o.port, "Port of the service (else PELMORA_PORT)")
      ->capture_default_str()->check(CLI::Range(1, 65535))
      ->each([&cli](const std::string&) { cli.port_given = true; });
  admin.add_option("--account", o.account,
                   "Account to log in with (else PELMORA_ACCOUNT, else the library's built-in "
                   "account)")
      ->each([&cli](const std::string&) { cli.account_given = true; });
  OptionFlags& given = cli.options_given;
  admin.add_option("--password-file", o.password_file,
                   "File holding the account's password (else PELMORA_PASSWORD, else a prompt)")
      ->each([&given](const std::string&) { given.password_file = true; });
  admin.add_option("--access-code-file", o.access_code_file,
                   "File holding the command access code (else PELMORA_ACCESS_CODE)")
      ->each([&given](const std::string&) { given.access_code_file = true; });
  admin.add_option("--timeout", o.timeout_ms, "Longest wait for each reply, in ms")
      ->capture_default_str()->check(CLI::NonNegativeNumber)
      ->each([&given](const std::string&) { given.timeout = true; });
  admin.add_option("--connect-timeout", o.connect_timeout_ms,
                   "Longest wait for each host's connection, in ms (0: the system's, minutes)")
      ->capture_default_str()->check(CLI::NonNegativeNumber)
      ->each([&given](const std::string&) { given.connect_timeout = true; });
  admin.add_flag("-v,--verbose", o.verbose, "Show each connection's steps on standard error");
  admin.add_flag("-q,--quiet", o.quiet, "No progress bar and no fleet summary: only output and errors");
  // Refused outright, with the reason, rather than as an unknown option.
  admin.add_option("--password", cli.password_trap)->group("")->each([](const std::string&) {
    std::fputs(
        "pelmora: passwords are never taken from the command line: use --password-file, "
        "PELMORA_PASSWORD or the prompt\n",
        stderr);
    throw CLI::RuntimeError(kExitUsage);
  });
}

void AddFleetOptions(CLI::App& admin, AdminCli& cli) {
  FleetOptions& f = cli.fleet;
  const char* group = "Fleet";
  admin.add_option("--hosts", cli.hosts,
                   "Hosts to run on, separated by commas or blanks: h1,h2:8003,web[01-40],db[1-3,7]")
      ->each([&cli](const std::string&) { cli.hosts_given = true; })
      ->group(group);
  admin.add_option("--hosts-file", cli.hosts_file, "File of hosts, one a line, # comments")
      ->group(group);
  admin.add_option("--parallel", f.parallel, "Hosts at a time")->capture_default_str()
      ->check(CLI::Range(1, 4096))->group(group);
  admin.add_flag("--group", f.group, "Print each host's output as one block")->group(group);
  admin.add_flag("--gather", f.gather, "Print identical outputs once, under their hosts")
      ->group(group);
  admin.add_flag("--json", f.json, "One JSON object per host, no summary table")->group(group);
  admin.add_option("--output-dir", f.output_dir, "Write each host's output to DIR/<host>")
      ->group(group);
  admin.add_option("--failed-file", f.failed_file, "Write the hosts that failed, one a line")
      ->group(group);
  admin.add_option("--overall-timeout", f.overall_timeout_ms,
                   "Longest time for the whole run, in ms (0: none)")
      ->check(CLI::NonNegativeNumber)->group(group);
  admin.get_option("--host")->excludes(admin.get_option("--hosts"));
  admin.get_option("--host")->excludes(admin.get_option("--hosts-file"));
}

// `given` with the host, account, port and other options the flags, the environment and the
// defaults file `file` choose.
AdminCli WithConnectDefaults(const AdminCli& given, const DefaultsFile& file) {
  AdminCli cli = given;
  HostFlags flags;
  if (given.host_given) flags.host = given.options.host;
  if (given.account_given) flags.account = given.options.account;
  if (given.port_given) flags.port = given.options.port;
  // A fleet names its hosts itself; only the account and the default port come from elsewhere,
  // and each host's section is read when it is its turn.
  DefaultsFile top_level{file.path, file.defaults, {}};
  if (cli.IsFleet()) flags.host = "localhost";
  const DefaultsFile& scope = cli.IsFleet() ? top_level : file;
  ConnectDefaults chosen = ChooseConnectDefaults(flags, std::getenv, AdminOptions{}.port, scope);
  // TLS from the flags, the environment or the host's section makes 8443 the default port.
  pelmora::TlsClientSettings from_file;
  ApplyFileTransport(cli.IsFleet() ? nullptr : file.Section(chosen.host), file.defaults,
                     from_file);
  cli.tls = WithFileTransport(given.tls, from_file);
  if (TlsWanted(cli.tls, std::getenv)) {
    chosen = ChooseConnectDefaults(flags, std::getenv, kTlsServicePort, scope);
  }
  cli.options.host = chosen.host;
  cli.options.address = chosen.address;
  cli.options.account = chosen.account;
  cli.options.port = chosen.port;
  ApplyDefaultsFile(file, cli.IsFleet() ? "" : chosen.host, given.options_given, std::getenv,
                    cli.options);
  return cli;
}

}  // namespace

int RunAdmin(const AdminCli& given, HostRequest request, bool needs_access_code) {
  Console console(Console::StatusWanted(given.options.quiet));
  try {
    auto run = std::make_shared<SharedRun>();
    run->file = ReadDefaultsFile(DefaultsFilePath(std::getenv), std::getenv);
    const AdminCli cli = WithConnectDefaults(given, run->file);
    std::vector<HostTarget> hosts;
    if (cli.IsFleet()) hosts = FleetHosts(cli);
    run->options = cli.options;
    run->options.fleet = cli.IsFleet();
    run->tls = cli.tls;
    run->options.tls = ResolveTlsSettings(cli.tls, std::getenv);
    run->credentials = ResolveCredentials(run->options, needs_access_code);
    run->request = std::move(request);
    const char* account_variable = std::getenv("PELMORA_ACCOUNT");
    run->given = {given.account_given || (account_variable != nullptr && *account_variable),
                  given.options_given};
    if (cli.IsFleet()) ResolveHostCredentials(*run, hosts, needs_access_code);
    if (cli.IsFleet()) return RunFleetCommand(cli, std::move(hosts), run, console);
    ConsoleOutput output(console, cli.options.host);
    int status =
        RunOnHost({cli.options.host, 0}, run->options, run->credentials, output, run->request);
    // Only exec needs the access code; it exits with the remote command's status.
    return needs_access_code ? output.ExecStatus() : status;
  } catch (const CommandError& e) {
    console.Err(std::string("pelmora: ") + e.what() + "\n");
    return needs_access_code && !given.IsFleet() ? kExitExecFailure : kExitUsage;
  }
}

CLI::App* AddAdminLeaf(CLI::App& admin, CommandAction& action,
                       const std::shared_ptr<AdminCli>& cli, const std::string& name,
                       const std::string& help, RequestMaker make,
                       const std::shared_ptr<LeafArgs>& args, bool needs_access_code) {
  CLI::App* leaf = admin.add_subcommand(name, help);
  leaf->fallthrough();
  leaf->callback([&action, cli, make, args, needs_access_code] {
    action = [cli, make, args, needs_access_code] {
      return RunAdmin(*cli, make(*args), needs_access_code);
    };
  });
  return leaf;
}

void AddAdminCommand(CLI::App& app, CommandAction& action) {
  CLI::App* admin = app.add_subcommand("admin", "The administration service of a host or a fleet");
  admin->require_subcommand(1);
  admin->footer(kAdminExamples);
  auto cli = std::make_shared<AdminCli>();
  AddGlobalOptions(*admin, *cli);
  AddFleetOptions(*admin, *cli);
  AddTlsOptions(*admin, cli->tls);
  AddAdminLeaves(*admin, action, cli);
  AddKeygenCommand(*admin, action);
}

}  // namespace pelmora_tool

// pelmorad: the administration service. See options.h for the command line and docs/protocol.md
// for what it answers.
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/sched/task_runner.h"
#include "pelmorad/atomic_file.h"
#include "pelmorad/command_tree.h"
#include "pelmorad/config.h"
#include "pelmorad/options.h"
#include "pelmorad/password.h"
#include "pelmorad/runtime.h"
#include "pelmorad/server.h"
#include "pelmorad/tls_identity.h"
#include "pelmorad/tls_listener.h"
#include "pelmorad/worker.h"

namespace {

int HashFromStandardInput() {
  std::string password;
  std::getline(std::cin, password);
  if (!password.empty() && password.back() == '\r') password.pop_back();
  if (password.empty()) {
    std::cerr << "pelmorad: no password on standard input\n";
    return 1;
  }
  std::cout << pelmorad::HashPassword(password) << '\n';
  return 0;
}

int CheckConfig(const std::string& path) {
  std::shared_ptr<const pelmorad::Runtime> runtime = pelmorad::LoadRuntime(path);
  const pelmorad::Config& config = runtime->config;
  if (!config.tls_only) pelmorad::CheckListenAddresses(config.listen);
  pelmorad::CheckListenAddresses(config.listen_tls);
  // A configured certificate and key must work together (the own pair is made at start).
  if (!config.listen_tls.empty() && !config.tls.certificate.empty()) {
    pelmorad::TlsListener check(pelmorad::LoadOrCreateTlsIdentity(config));
  }
  std::cout << path << ": the configuration is valid\n";
  if (config.tls_only) {
    std::cout << path << ": tls_only: no plain listeners; TLS only on "
              << fmt::format("{}", fmt::join(config.listen_tls, ", ")) << "\n";
  }
  return 0;
}

int ShowFingerprint(const std::string& path) {
  std::cout << pelmorad::LoadOrCreateTlsIdentity(pelmorad::LoadConfig(path)).fingerprint << '\n';
  return 0;
}

// How long a start waits for the task runner's lock, which a task process that a killed service
// had just forked may still hold for a moment.
constexpr int kRunnerLockWaitMs = 5000;

// Starts the task runner that the configuration's [scheduler] section asks for; nullptr when it
// asks for none. The runner keeps the folder it started with across reloads; temporaries that a
// killed run left in its folder are removed first.
std::unique_ptr<pelmora::sched::TaskRunner> StartScheduler(const std::string& config_path) {
  pelmorad::Config config = pelmorad::LoadConfig(config_path);
  if (!config.scheduler.enabled) return nullptr;
  std::string folder = *config.LinuxPathOf(config.scheduler.folder);
  if (int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); fd >= 0) {
    pelmorad::RemoveLeftoverTemporaries(fd);
    ::close(fd);
  }
  auto runner = std::make_unique<pelmora::sched::TaskRunner>(pelmora::sched::TaskRunnerOptions{
      .folder = folder, .lock_wait_ms = kRunnerLockWaitMs});
  runner->Start();
  return runner;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]) == pelmorad::kWorkerOption) {
    return pelmorad::RunWorker();
  }
  std::vector<std::string_view> arguments(argv + 1, argv + argc);
  try {
    pelmorad::Options options = pelmorad::ParseOptions(arguments);
    switch (options.action) {
      case pelmorad::Action::kHelp:
        std::cout << pelmorad::UsageText();
        return 0;
      case pelmorad::Action::kVersion:
        std::cout << "pelmorad " PELMORA_VERSION " (commit " PELMORA_COMMIT ", " PELMORA_BUILD_TYPE
                     " build)\n";
        return 0;
      case pelmorad::Action::kHashPassword:
        return HashFromStandardInput();
      case pelmorad::Action::kCheckConfig:
        return CheckConfig(options.server.config_path);
      case pelmorad::Action::kShowFingerprint:
        return ShowFingerprint(options.server.config_path);
      case pelmorad::Action::kServe:
        break;
    }
    std::string config_path = options.server.config_path;
    pelmorad::Server server(std::move(options.server));
    std::unique_ptr<pelmora::sched::TaskRunner> scheduler = StartScheduler(config_path);
    int status = server.Run();
    if (scheduler) scheduler->Stop();
    // A pool thread blocked in the kernel would keep the server's destructor waiting.
    if (server.Abandoned()) std::_Exit(status);
    return status;
  } catch (const pelmora::Error& error) {
    std::cerr << "pelmorad: " << error.Description() << '\n';
    return error.Number() == 87 ? 2 : 1;
  }
}

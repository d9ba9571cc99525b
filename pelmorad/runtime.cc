#include "pelmorad/runtime.h"

#include <chrono>

namespace pelmorad {

std::shared_ptr<const Runtime> MakeRuntime(Config config) {
  auto runtime = std::make_shared<Runtime>();
  runtime->drives = DriveTable::Open(config.drives);
  runtime->config = std::move(config);
  return runtime;
}

std::shared_ptr<const Runtime> LoadRuntime(const std::string& config_path) {
  return MakeRuntime(LoadConfig(config_path));
}

ServiceContext::ServiceContext(asio::io_context& io_context, std::shared_ptr<const Runtime> first)
    : io(io_context),
      pool(static_cast<std::size_t>(first->config.limits.workers)),
      runtime(std::move(first)),
      throttle(runtime->config.limits.login_failures,
               std::chrono::seconds(runtime->config.limits.lockout_seconds),
               std::chrono::milliseconds(runtime->config.limits.login_delay_ms)) {}

}  // namespace pelmorad

// The fixture of the tests that run the `pelmora` tool as a process against the real pelmorad:
// a service on a free loopback port with its own folder, and the environment the tool needs
// (its home, log root, access code and the operator's password, and a defaults-file folder of
// its own so that the user's ~/.config/pelmora never takes part).
#ifndef TESTS_CLI_CLI_SERVICE_FIXTURE_H_
#define TESTS_CLI_CLI_SERVICE_FIXTURE_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "pelmora/admin/internal/built_in_secrets.h"
#include "pelmorad/password.h"
#include "tests/cli/child_process.h"
#include "tests/service/service_process.h"

namespace pelmora_cli_test {

using Env = std::vector<std::pair<std::string, std::string>>;

inline constexpr std::chrono::seconds kLimit(30);


class CliServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service_.Start());
    env_ = {{"PELMORA_HOME", service_.folder() + "/home"},
            {"PELMORA_LOG_ROOT", service_.folder() + "/log"},
            {"PELMORA_ACCESS_CODE", pelmora::admin::internal::BuiltInAccessCode()},
            {"PELMORA_PASSWORD", std::string(pelmorad::testing::kOperatorPassword)},
            {"XDG_CONFIG_HOME", service_.folder() + "/config"}};
  }
  // `pelmora admin --port P ARGS...` with the built-in account.
  ChildProcess::Result Admin(std::vector<std::string> args) {
    args.insert(args.begin(), {"admin", "--host", "127.0.0.1", "--port",
                               std::to_string(service_.port())});
    return ChildProcess(args, env_).Finish(kLimit);
  }
  std::string Local(const std::string& name) const { return service_.folder() + "/" + name; }
  // A server file of `size` bytes at C:\<name>.
  void ServerFile(const std::string& name, size_t size) {
    std::ofstream(service_.Drive('C') + "/" + name, std::ios::binary) << std::string(size, 'x');
  }
  // The names in a local folder, hidden ones included.
  static std::vector<std::string> Names(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  pelmorad::testing::ServiceProcess service_;
  Env env_;
};

}  // namespace pelmora_cli_test

#endif  // TESTS_CLI_CLI_SERVICE_FIXTURE_H_

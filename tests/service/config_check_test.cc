// pelmorad --check-config refuses what the start would trip over: listen addresses that do not
// parse or cannot be bound here, run_as users this machine does not have.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

// The exit status and standard error of `pelmorad --check-config` on `path`.
std::pair<int, std::string> CheckConfig(const ServiceProcess& service, const std::string& path) {
  std::string errors = service.folder() + "/check.err";
  int status = RunProgram({"/bin/sh", "-c", "exec \"$0\" --check-config --config \"$1\" 2>\"$2\"",
                           std::getenv("PELMORAD_BINARY"), path, errors});
  return {status, ReadFile(errors)};
}

// `service`'s configuration with `listen` in front, written beside it (mode 0600).
std::string WithListen(const ServiceProcess& service, const std::string& listen) {
  std::string path = service.folder() + "/listen.toml";
  WriteFile(path, "listen = [\"" + listen + "\"]\n" + ReadFile(service.config_path()));
  ::chmod(path.c_str(), 0600);
  return path;
}

struct ListenCase {
  const char* listen;
  const char* refusal;
};

TEST(ServiceConfigCheck, ListenAddressesThatCannotBeBoundFailTheCheck) {
  ServiceProcess service;
  const ListenCase cases[] = {
      {"127.0.0.1:99999", "listen: \"127.0.0.1:99999\" is not an address:port"},
      {"localhost:8002", "listen: \"localhost:8002\" is not an address:port"},
      {"192.0.2.1:8002", "listen: cannot listen on \"192.0.2.1:8002\""},
  };
  for (const ListenCase& test : cases) {
    SCOPED_TRACE(test.listen);
    auto [status, errors] = CheckConfig(service, WithListen(service, test.listen));
    EXPECT_EQ(status, 2);
    EXPECT_THAT(errors, ::testing::HasSubstr(test.refusal));
  }
  auto [status, errors] = CheckConfig(service, WithListen(service, "127.0.0.1:0"));
  EXPECT_EQ(status, 0) << errors;
}

TEST(ServiceConfigCheck, ARunAsUserThatDoesNotExistFailsTheCheck) {
  ServiceProcess service("[accounts.ghost]\npassword = \"" + HashOf(kOperatorPassword) +
                         "\"\ncommands = true\nrun_as = \"pelmora-no-such-user\"\n");
  auto [status, errors] = CheckConfig(service, service.config_path());
  EXPECT_EQ(status, 2);
  EXPECT_THAT(errors, ::testing::HasSubstr(
                          "accounts.ghost.run_as: \"pelmora-no-such-user\" is no user"));
  EXPECT_THAT(errors, ::testing::Not(::testing::HasSubstr("1326")));
}

TEST(ServiceConfigCheck, AMisspelledKeyFailsTheCheckWithItsLine) {
  ServiceProcess service("[accounts.typo]\npassword = \"" + HashOf(kOperatorPassword) +
                         "\"\ncomands = true\n");
  auto [status, errors] = CheckConfig(service, service.config_path());
  EXPECT_EQ(status, 2);
  EXPECT_THAT(errors, ::testing::ContainsRegex(
                          "line [0-9]+: unknown key accounts.typo.comands \\(did you mean "
                          "commands\\?\\)"));
}

}  // namespace
}  // namespace pelmorad::testing

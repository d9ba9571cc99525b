// Rights checked per request: what an account without `commands` may not start, and the
// configurations the service refuses because their commands would run as root.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "pelmora/admin/wire_replies.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RequestCode;

// The size message answering a print queue request as `account` (nullopt when none came).
std::optional<int32_t> PrintQueueSize(const ServiceProcess& service, std::string_view account,
                                      std::string_view password) {
  RawClient client;
  if (!client.Connect(service.port())) return std::nullopt;
  auto login = client.Login(account, password);
  if (!login || !login->success || !client.Request(RequestCode::kGetPrintQ, {})) {
    return std::nullopt;
  }
  std::optional<Bytes> size = client.ReadFramed();
  if (!size) return std::nullopt;
  return pelmora::admin::ParseSizeMessage(*size);
}

TEST(ServiceRights, PrintQueueNeedsTheCommandsRight) {
  ServiceProcess service;
  ASSERT_TRUE(service.Start());
  EXPECT_EQ(PrintQueueSize(service, "reader", kReaderPassword), -1);
  EXPECT_EQ(PrintQueueSize(service, "donly", kOperatorPassword), -1);
  EXPECT_EQ(PrintQueueSize(service, "operator", kOperatorPassword), 0);
  EXPECT_THAT(service.ErrorOutput(), ::testing::HasSubstr("print queue"));
}

// The exit status and standard error of `pelmorad --check-config` on `service`'s configuration.
std::pair<int, std::string> CheckConfig(const ServiceProcess& service) {
  std::string errors = service.folder() + "/check.err";
  int status = RunProgram({"/bin/sh", "-c",
                           "exec \"$0\" --check-config --config \"$1\" 2>\"$2\"",
                           std::getenv("PELMORAD_BINARY"), service.config_path(), errors});
  return {status, ReadFile(errors)};
}

TEST(ServiceRights, CommandsWithoutARunAsUserAreRefusedWhenTheServiceIsRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "the refusal applies to a service running as root";
  ServiceProcess service("[accounts.shell]\npassword = \"" + HashOf(kOperatorPassword) +
                         "\"\ncommands = true\n");
  auto [status, errors] = CheckConfig(service);
  EXPECT_EQ(status, 2);
  EXPECT_THAT(errors, ::testing::HasSubstr("accounts.shell: may run commands but names no run_as"));
  std::string log = service.folder() + "/start.err";
  int started = RunProgram({"/bin/sh", "-c", "exec \"$0\" --config \"$1\" 2>\"$2\"",
                            std::getenv("PELMORAD_BINARY"), service.config_path(), log});
  EXPECT_EQ(started, 2);
  EXPECT_THAT(ReadFile(log), ::testing::HasSubstr("accounts.shell"));
}

}  // namespace
}  // namespace pelmorad::testing

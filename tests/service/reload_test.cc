// Revocation by reload (SIGHUP): sessions of removed or changed accounts end, sessions of
// unchanged accounts go on, and a connection opened before the reload logs in against the new
// configuration.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "pelmora/admin/wire_replies.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RequestCode;

std::string Account(const std::string& name, const std::string& keys = "") {
  return "[accounts." + name + "]\npassword = \"" + HashOf(kOperatorPassword) + "\"\n" + keys;
}

bool Login(RawClient& client, int port, const char* account) {
  if (!client.Connect(port)) return false;
  auto reply = client.Login(account, kOperatorPassword);
  return reply && reply->success;
}

TEST(ServiceReload, RemovedAndChangedAccountsLoseTheirSessions) {
  ServiceProcess service(Account("gone") + Account("changed"));
  ASSERT_TRUE(service.Start());
  RawClient gone, changed, unchanged, waiting;
  ASSERT_TRUE(Login(gone, service.port(), "gone"));
  ASSERT_TRUE(Login(changed, service.port(), "changed"));
  ASSERT_TRUE(Login(unchanged, service.port(), "operator"));
  ASSERT_TRUE(waiting.Connect(service.port()));

  service.WriteConfig(Account("changed", "read_only = true\n"));
  service.Signal(SIGHUP);
  EXPECT_TRUE(gone.WaitForClose(10000)) << service.ErrorOutput();
  EXPECT_TRUE(changed.WaitForClose(10000));

  auto refused = waiting.Login("gone", kOperatorPassword);
  ASSERT_TRUE(refused);
  EXPECT_FALSE(refused->success);
  EXPECT_EQ(refused->code, 1326);

  ASSERT_TRUE(unchanged.RequestPath(RequestCode::kFolderExists, "C:\\"));
  auto reply = unchanged.ReadResult();
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->success);
  EXPECT_NE(service.ErrorOutput().find("closed: the account was removed or changed by a reload"),
            std::string::npos);
}

}  // namespace
}  // namespace pelmorad::testing

// Bounds before login: a connection must log in within the login grace time, only a few may wait
// for their login at once (logged-in sessions do not count), and a request announced before
// login may only be small.
#include <gtest/gtest.h>

#include <string>

#include "pelmora/admin/wire_replies.h"
#include "pelmorad/runtime.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

class ServicePreLogin : public ::testing::Test {
 protected:
  ServicePreLogin()
      : service_("[limits]\nidle_seconds = 600\nlogin_grace_seconds = 1\n"
                 "unauthenticated = 4\nunauthenticated_start = 4\n") {}

  void SetUp() override { ASSERT_TRUE(service_.Start()); }

  bool Login(RawClient& client) {
    if (!client.Connect(service_.port())) return false;
    auto reply = client.Login("operator", kOperatorPassword);
    return reply && reply->success;
  }

  ServiceProcess service_;
};

TEST_F(ServicePreLogin, ASilentConnectionIsClosedAfterTheLoginGraceTime) {
  RawClient silent;
  ASSERT_TRUE(silent.Connect(service_.port()));
  EXPECT_TRUE(silent.WaitForClose(10000));
  EXPECT_NE(service_.ErrorOutput().find("closed: not logged in within the grace time"),
            std::string::npos);
  // A logged-in session is held to the idle time, not to the grace time.
  RawClient logged_in;
  ASSERT_TRUE(Login(logged_in));
  EXPECT_FALSE(logged_in.WaitForClose(1500));
}

TEST_F(ServicePreLogin, OnlyAFewConnectionsMayWaitForTheirLogin) {
  RawClient first_logged_in;
  ASSERT_TRUE(Login(first_logged_in));
  RawClient waiting[4];
  for (RawClient& client : waiting) ASSERT_TRUE(client.Connect(service_.port()));
  RawClient one_more;
  ASSERT_TRUE(one_more.Connect(service_.port()));
  EXPECT_TRUE(one_more.WaitForClose(500)) << "accepted beyond the limit of waiting connections";
  // The logged-in session is not one of them and works on.
  ASSERT_TRUE(first_logged_in.RequestPath(pelmora::admin::RequestCode::kFolderExists, "C:\\"));
  auto reply = first_logged_in.ReadResult();
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->success);
}

TEST_F(ServicePreLogin, ALargeRequestAnnouncedBeforeLoginClosesTheConnection) {
  RawClient client;
  ASSERT_TRUE(client.Connect(service_.port()));
  ASSERT_TRUE(client.SendFramed(pelmora::admin::BuildSizeMessage(60000)));
  EXPECT_TRUE(client.WaitForClose(500));
  EXPECT_NE(service_.ErrorOutput().find("closed: request size 60000"), std::string::npos);
}

TEST(DropUnauthenticated, RisesFromThirtyPercentToAll) {
  Limits limits;
  limits.unauthenticated_start = 10;
  limits.unauthenticated = 20;
  struct Case {
    int waiting;
    double chance;
    bool dropped;
  };
  const Case cases[] = {{9, 0.0, false},  {10, 0.29, true}, {10, 0.31, false},
                        {15, 0.64, true}, {15, 0.66, false}, {19, 0.9, true},
                        {20, 0.99, true}, {500, 0.99, true}};
  for (const Case& test : cases) {
    EXPECT_EQ(DropUnauthenticated(test.waiting, limits, test.chance), test.dropped)
        << test.waiting << " waiting, chance " << test.chance;
  }
}

}  // namespace
}  // namespace pelmorad::testing

// The service's end of a client connection, before the login (the root process's) and after it
// (the account worker's), has TCP_NODELAY: a reply written in pieces (a size message, then its
// record) must not wait for the client's acknowledgement of the first piece, which a client
// waiting for the record delays by up to 40 ms a request.
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include "pelmora/admin/wire.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"
#include "tests/service/service_socket.h"

namespace pelmorad::testing {
namespace {

TEST(ServiceSocketOptions, BothEndsOfTheServiceSendRepliesWithoutNagleDelay) {
  if (::geteuid() != 0) GTEST_SKIP() << "reading another process's descriptors needs root";
  ServiceProcess service;
  ASSERT_TRUE(service.Start()) << service.ErrorOutput();
  RawClient waiting;  // held by the root process, not logged in
  ASSERT_TRUE(waiting.Connect(service.port()));
  RawClient served;
  ASSERT_TRUE(served.Connect(service.port()));
  auto login = served.Login("operator", kOperatorPassword);
  ASSERT_TRUE(login && login->success);
  ASSERT_TRUE(served.RequestPath(pelmora::admin::RequestCode::kFolderExists, "C:\\"));
  auto reply = served.ReadResult();
  ASSERT_TRUE(reply && reply->success);  // the worker holds the connection by now

  EXPECT_EQ(ServiceSideTcpOption(service.pid(), LocalPort(waiting.fd()), TCP_NODELAY), 1);
  EXPECT_EQ(ServiceSideTcpOption(service.pid(), LocalPort(served.fd()), TCP_NODELAY), 1);
}

}  // namespace
}  // namespace pelmorad::testing

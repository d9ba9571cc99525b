#include "pelmora/testing/fault_socket_api.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

namespace pelmora::testing {
namespace {

// A connected pair of stream sockets, closed at the end.
struct SocketPair {
  SocketPair() { ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds); }
  ~SocketPair() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  int fds[2] = {-1, -1};
};

TEST(FaultSocketApi, FailsOnlyTheArmedCallOfItsKind) {
  FaultSocketApi api;
  SocketPair pair;
  api.FailCall(SocketCall::kSend, 2, ECONNRESET);
  EXPECT_TRUE(api.Send(pair.fds[0], "a", 1, 0).ok());
  net_internal::SocketResult failed = api.Send(pair.fds[0], "b", 1, 0);
  EXPECT_EQ(failed.error, ECONNRESET);
  EXPECT_EQ(failed.value, -1);
  EXPECT_TRUE(api.Send(pair.fds[0], "c", 1, 0).ok());
  EXPECT_EQ(api.Calls(SocketCall::kSend), 3);
  char got[4] = {};
  EXPECT_EQ(api.Recv(pair.fds[1], got, sizeof(got), 0).value, 2);
  EXPECT_EQ(std::string(got, 2), "ac");
}

TEST(FaultSocketApi, ShortensTheChosenSendOrEverySend) {
  FaultSocketApi api;
  SocketPair pair;
  api.ShortSend(1, 2);
  EXPECT_EQ(api.Send(pair.fds[0], "abcdef", 6, 0).value, 2);
  EXPECT_EQ(api.Send(pair.fds[0], "abcdef", 6, 0).value, 6);
  api.LimitEverySend(4);
  EXPECT_EQ(api.Send(pair.fds[0], "abcdef", 6, 0).value, 4);
  EXPECT_EQ(api.Send(pair.fds[0], "abcdef", 6, 0).value, 4);
}

TEST(FaultSocketApi, ReportsTheHostNameItIsGiven) {
  FaultSocketApi api;
  api.SetHostName("scripted-host");
  std::string name;
  EXPECT_TRUE(api.HostName(name).ok());
  EXPECT_EQ(name, "scripted-host");
  api.FailNext(SocketCall::kHostName, EFAULT);
  EXPECT_EQ(api.HostName(name).error, EFAULT);
}

}  // namespace
}  // namespace pelmora::testing

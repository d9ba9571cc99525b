// WinSock's socket options, by their published numbers, on real sockets.
#include <gtest/gtest.h>

#include "pelmora/net/internal/winsock_test_util.h"
#include "pelmora/net/winsock.h"
#include "pelmora/testing/scripted_peer.h"

namespace pelmora {
namespace {

using net_internal::ConnectTo;
using testing::ScriptedPeer;

class WinSockOptions : public ::testing::Test {
 protected:
  void SetUp() override {
    peer_.Stall();
    peer_.Start();
    ConnectTo(socket_, peer_.Port());
  }

  int32_t Read(SckOptionLevelConstants level, SckOptionNameConstants name) {
    int32_t value = -12345;
    EXPECT_TRUE(socket_.GetSocketOption(level, name, value)) << name;
    return value;
  }

  ScriptedPeer peer_;
  WinSock socket_;
};

struct RoundTrip {
  SckOptionLevelConstants level;
  SckOptionNameConstants name;
  int32_t written;
  int32_t read_back;
};

TEST_F(WinSockOptions, WrittenValuesReadBackInPublishedForm) {
  const RoundTrip cases[] = {
      {sckSOL_SOCKET, sckSO_KEEPALIVE, -1, 1},     {sckSOL_SOCKET, sckSO_KEEPALIVE, 0, 0},
      {sckIPPROTO_TCP, sckTCP_NODELAY, 1, 1},      {sckSOL_SOCKET, sckSO_REUSEADDR, 1, 1},
      {sckSOL_SOCKET, sckSO_OOBINLINE, 1, 1},      {sckSOL_SOCKET, sckSO_RCVBUF, 65536, 65536},
      {sckSOL_SOCKET, sckSO_SNDBUF, 32768, 32768}, {sckSOL_SOCKET, sckSO_RCVTIMEO, 1500, 1500},
      {sckSOL_SOCKET, sckSO_SNDTIMEO, 2000, 2000}, {sckSOL_SOCKET, sckSO_LINGER, 1, 1},
      {sckSOL_SOCKET, sckSO_LINGER, 0, 0},         {sckSOL_SOCKET, sckSO_DONTLINGER, 0, 0},
      {sckSOL_SOCKET, sckSO_DONTLINGER, 1, 1},
  };
  for (const RoundTrip& c : cases) {
    EXPECT_TRUE(socket_.SetSocketOption(c.level, c.name, c.written)) << c.name;
    EXPECT_EQ(Read(c.level, c.name), c.read_back) << c.name << " " << c.written;
    EXPECT_EQ(socket_.LastError(), 0);
  }
}

TEST_F(WinSockOptions, LingerTravelsAsSwitchAndSecondsHalves) {
  // Only the switch is written; the seconds already set are kept.
  EXPECT_TRUE(socket_.SetSocketOption(sckSOL_SOCKET, sckSO_LINGER, 0x00070001));
  EXPECT_EQ(Read(sckSOL_SOCKET, sckSO_LINGER), 1);
  EXPECT_EQ(Read(sckSOL_SOCKET, sckSO_DONTLINGER), 0);
  EXPECT_TRUE(socket_.SetSocketOption(sckSOL_SOCKET, sckSO_DONTLINGER, -1));
  EXPECT_EQ(Read(sckSOL_SOCKET, sckSO_LINGER), 0);
}

TEST_F(WinSockOptions, ReadOnlyOptionsDescribeTheSocket) {
  EXPECT_EQ(Read(sckSOL_SOCKET, sckSO_TYPE), 1);
  EXPECT_EQ(Read(sckSOL_SOCKET, sckSO_ERROR), 0);
  EXPECT_EQ(Read(sckSOL_SOCKET, sckSO_ACCEPTCONN), 0);
}

TEST_F(WinSockOptions, UnknownOptionsAreRefusedWith10042) {
  const std::pair<int32_t, int32_t> cases[] = {{sckSOL_SOCKET, sckSO_USELOOPBACK},
                                               {sckSOL_SOCKET, sckSO_EXCLUSIVEADDRUSE},
                                               {sckSOL_SOCKET, 12345},
                                               {0, sckSO_KEEPALIVE},
                                               {sckIPPROTO_TCP, 2}};
  for (auto [level, name] : cases) {
    int32_t value = 77;
    auto l = static_cast<SckOptionLevelConstants>(level);
    auto n = static_cast<SckOptionNameConstants>(name);
    EXPECT_FALSE(socket_.GetSocketOption(l, n, value));
    EXPECT_EQ(value, 77);
    EXPECT_EQ(socket_.LastError(), 10042);
    EXPECT_FALSE(socket_.SetSocketOption(l, n, 1));
    EXPECT_EQ(socket_.LastError(), 10042);
  }
}

TEST(WinSockOptionsWithoutSocket, AreRefusedWith10057) {
  WinSock socket;
  int32_t value = 5;
  EXPECT_FALSE(socket.SetSocketOption(sckSOL_SOCKET, sckSO_KEEPALIVE, -1));
  EXPECT_EQ(socket.LastError(), 10057);
  EXPECT_FALSE(socket.GetSocketOption(sckSOL_SOCKET, sckSO_KEEPALIVE, value));
  EXPECT_EQ(socket.LastError(), 10057);
  EXPECT_EQ(value, 5);
}

}  // namespace
}  // namespace pelmora

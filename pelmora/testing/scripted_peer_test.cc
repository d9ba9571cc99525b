#include "pelmora/testing/scripted_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace pelmora::testing {
namespace {

int ConnectTo(uint16_t port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  return fd;
}

TEST(ScriptedPeer, RecordsExactBytesAndRepliesFromThem) {
  ScriptedPeer peer;
  peer.Receive(3).ReplyWith([](const std::vector<Bytes>& got) {
    Bytes reply = got.back();
    reply.push_back('!');
    return reply;
  }).Close();
  peer.Start();
  int fd = ConnectTo(peer.Port());
  ASSERT_EQ(::send(fd, "abc", 3, 0), 3);
  char buffer[8] = {};
  ASSERT_EQ(::recv(fd, buffer, sizeof(buffer), MSG_WAITALL), 4);
  EXPECT_EQ(std::string(buffer, 4), "abc!");
  ::close(fd);
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  EXPECT_EQ(peer.Received(0), (Bytes{'a', 'b', 'c'}));
}

TEST(ScriptedPeer, ReportsAClientThatSendsTooLittle) {
  ScriptedPeer peer;
  peer.SetStepTimeout(std::chrono::milliseconds(2000));
  peer.Receive(10);
  peer.Start();
  int fd = ConnectTo(peer.Port());
  ASSERT_EQ(::send(fd, "abc", 3, 0), 3);
  ::close(fd);
  EXPECT_FALSE(peer.Finish());
  EXPECT_EQ(peer.Received(0).size(), 3u);
}

}  // namespace
}  // namespace pelmora::testing

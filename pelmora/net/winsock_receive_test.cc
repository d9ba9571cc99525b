// WinSock receive tests: no byte is lost to whoever reads the socket after the object, and the
// received count tells a block of zero bytes from a close.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "pelmora/net/internal/winsock_test_util.h"
#include "pelmora/net/winsock.h"
#include "pelmora/testing/scripted_peer.h"

namespace pelmora {
namespace {

using net_internal::Bytes;
using net_internal::ConnectTo;
using net_internal::Pattern;
using testing::ScriptedPeer;

// Reads `n` bytes from `fd` with plain receives, each bounded by a 5-second receive time-out.
Bytes ReadDescriptor(int fd, size_t n) {
  timeval limit{5, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  Bytes bytes(n);
  size_t got = 0;
  while (got < n) {
    const ssize_t r = ::recv(fd, bytes.data() + got, n - got, 0);
    if (r <= 0) break;
    got += static_cast<size_t>(r);
  }
  bytes.resize(got);
  return bytes;
}

// Whoever reads the socket after GetData (after Detach, or through SocketHandle) gets every byte
// GetData did not return, however small the requests were.
TEST(WinSockReceive, BytesNotReturnedStayInTheSocketForTheNextReader) {
  const Bytes sent = Pattern(3000, 5);
  for (const bool detach : {true, false}) {
    ScriptedPeer peer;
    peer.Send(sent).Stall();
    peer.Start();
    WinSock socket;
    ConnectTo(socket, peer.Port());
    socket.SetReceiveTimeout(5000);
    Bytes first;
    ASSERT_EQ(socket.GetData(first, 100), sckSuccess);
    ASSERT_EQ(first.size(), 100u);
    Bytes second;
    ASSERT_EQ(socket.GetData(second, 1), sckSuccess);
    first.insert(first.end(), second.begin(), second.end());
    const int fd = detach ? socket.Detach() : socket.SocketHandle();
    Bytes rest = ReadDescriptor(fd, sent.size() - first.size());
    first.insert(first.end(), rest.begin(), rest.end());
    EXPECT_TRUE(first == sent) << (detach ? "after Detach" : "through SocketHandle");
    if (detach) ::close(fd);
  }
}

// A read of real zero bytes and a read at a close both hand back zero bytes; the count and the end
// flag tell them apart.
TEST(WinSockReceive, CountAndEndTellZeroBytesFromAClose) {
  ScriptedPeer peer;
  peer.Send(Bytes(10, 0)).Send(Bytes(3, 0)).Close();
  peer.Start();
  WinSock socket;
  ConnectTo(socket, peer.Port());
  socket.SetReceiveTimeout(5000);
  struct Step {
    int32_t size;
    size_t length;
    int32_t count;
    bool end;
  };
  const Step steps[] = {{10, 10, 10, false}, {8, 3, 3, true}, {4, 4, 0, true}};
  for (const Step& step : steps) {
    Bytes buffer;
    ASSERT_EQ(socket.GetData(buffer, step.size), sckSuccess);
    EXPECT_EQ(buffer, Bytes(step.length, 0)) << step.size;
    EXPECT_EQ(socket.LastReceivedCount(), step.count) << step.size;
    EXPECT_EQ(socket.LastReceiveReachedEnd(), step.end) << step.size;
  }
}

}  // namespace
}  // namespace pelmora

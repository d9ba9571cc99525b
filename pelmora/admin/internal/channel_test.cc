// Tests of the channel on its own, against a scripted peer: what RCFSO's members never show
// apart (an open connection that has not logged in, the raw stream's pieces and its end when the
// peer closes part way), and a TLS session (through a TLS relay) keeping the plain transport's
// bounds.
#include "pelmora/admin/internal/channel.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "pelmora/admin/wire.h"
#include "pelmora/testing/admin_peer.h"
#include "pelmora/testing/scratch_folder.h"
#include "pelmora/testing/tls_relay.h"
#include "pelmora/testing/web_server.h"

namespace pelmora::admin::internal {
namespace {

using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::LastSequence;
using pelmora::testing::ScratchFolder;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::SizeData;
using pelmora::testing::TlsRelay;

Bytes Counting(size_t n) {
  Bytes bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i % 7 == 0 ? 0 : i);
  return bytes;
}

// The TCP connection alone does not make the channel connected: requests wait for the login,
// and a refused request advances no sequence number, so the login still carries the first one.
TEST(Channel, RequestsWaitForTheLoginNotForTheConnection) {
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer(SizeData(42)));
  peer.Start();
  Channel channel(2000);
  ASSERT_TRUE(channel.Open("127.0.0.1", peer.Port()));
  EXPECT_FALSE(channel.connected());
  EXPECT_FALSE(channel.SendRequestAnsi("", 19));
  EXPECT_EQ(channel.error().code(), 8117);
  EXPECT_EQ(channel.error().description(), "Connection has not established");
  ASSERT_TRUE(channel.LogIn("u", "p"));
  EXPECT_TRUE(channel.connected());
  EXPECT_EQ(channel.error().code(), 0);
  ASSERT_TRUE(channel.SendRequestAnsi("", 19));
  EXPECT_EQ(channel.ReceiveSize(), 42);
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  const std::vector<Bytes> received = peer.ReceivedChunks();
  ASSERT_EQ(received.size(), 3u);
  EXPECT_EQ(pelmora::testing::SequenceOf(received[0]), 2147483641);  // the login
  EXPECT_EQ(LastSequence(received), 2147483642);
}

// Raw bytes are counted, not judged: zeros are data, pieces are never larger than asked for,
// and a peer that closes part way ends the stream with 10054 and the bytes it did send.
TEST(Channel, RawStreamsComeInBoundedPiecesAndKeepWhatCameBeforeAClose) {
  const Bytes content = Counting(2500);
  const Bytes cut = Counting(700);
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  peer.Send(content).Send(cut).Close();
  peer.Start();
  Channel channel(2000);
  ASSERT_TRUE(channel.Open("127.0.0.1", peer.Port()) && channel.LogIn("u", "p"));

  Bytes streamed;
  std::vector<size_t> pieces;
  const int32_t e = channel.StreamRawBytes(2500, 1000, [&](std::span<const uint8_t> piece) {
    pieces.push_back(piece.size());
    streamed.insert(streamed.end(), piece.begin(), piece.end());
  });
  EXPECT_EQ(e, 0);
  EXPECT_EQ(pieces, (std::vector<size_t>{1000, 1000, 500}));
  EXPECT_EQ(streamed, content);

  Bytes partial;
  EXPECT_EQ(channel.ReadRawBytes(1000, partial), 10054);
  EXPECT_EQ(partial, cut);
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
}

// Shuts a socket down if the test is still running after `limit`, so that a send that would
// never end fails instead of hanging the suite.
class SocketWatchdog {
 public:
  SocketWatchdog(int fd, std::chrono::seconds limit)
      : thread_([this, fd, limit] {
          std::unique_lock lock(mutex_);
          if (!done_.wait_for(lock, limit, [this] { return finished_; })) {
            ::shutdown(fd, SHUT_RDWR);
          }
        }) {}
  ~SocketWatchdog() {
    {
      std::lock_guard lock(mutex_);
      finished_ = true;
    }
    done_.notify_all();
    thread_.join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::thread thread_;
};

// The service stops reading after the login. Over TLS as over plain TCP the client's sends give
// 10060 once the connection's buffers are full and the time-out has passed without progress,
// also when the time-out was set before the connection was opened.
TEST(Channel, TlsSendsEndWithTheTimeOutWhenTheServiceStopsReading) {
  ScratchFolder folder;
  pelmora::testing::WriteTestCertificates(folder.Path());
  const std::string pem = folder.Path("valid.pem");
  auto peer = std::make_unique<ScriptedPeer>();
  ExpectLogin(*peer, true).Stall();
  peer->Start();
  TlsRelay relay(pem, peer->Port());
  Channel channel(10000);
  channel.set_timeout(300);
  TlsClientSettings tls;
  tls.enabled = true;
  tls.fingerprint = pelmora::testing::PemCertificateFingerprint(pem);
  channel.set_tls(tls);
  ASSERT_TRUE(channel.Open("127.0.0.1", relay.port())) << channel.error().description();
  ASSERT_TRUE(channel.LogIn("u", "p")) << channel.error().description();

  SocketWatchdog watchdog(channel.SocketHandle(), std::chrono::seconds(30));
  const std::vector<uint8_t> block(1 << 20, 0x5A);
  int32_t failure = 0;
  for (int i = 0; i < 256 && failure == 0; ++i) {
    if (!channel.SendPacket(block)) failure = channel.error().code();
  }
  EXPECT_EQ(failure, 10060);
  peer.reset();  // the relay's forwarding to the stalled peer ends when the peer is gone
}

}  // namespace
}  // namespace pelmora::admin::internal

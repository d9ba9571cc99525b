// Tests of the channel's transport: a TLS session (through a TLS relay in front of a scripted
// peer) keeps the bounds the plain transport has.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "pelmora/admin/internal/channel.h"
#include "pelmora/testing/admin_peer.h"
#include "pelmora/testing/scratch_folder.h"
#include "pelmora/testing/tls_relay.h"
#include "pelmora/testing/web_server.h"

namespace pelmora::admin::internal {
namespace {

using pelmora::testing::ExpectLogin;
using pelmora::testing::ScratchFolder;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::TlsRelay;

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
TEST(ChannelTransport, TlsSendsEndWithTheTimeOutWhenTheServiceStopsReading) {
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

// The WinINet object against a scripted HTTP peer: the exact request bytes, and the replies real
// servers do not give on demand (garbage, early closes, resets, stalls, short bodies).
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "pelmora/net/wininet.h"
#include "pelmora/testing/raised_error.h"
#include "pelmora/testing/scripted_peer.h"
#include "pelmora/testing/web_server.h"

namespace pelmora {
namespace {

using testing::Bytes;
using testing::RaisedError;
using testing::ScriptedPeer;

Bytes B(const std::string& text) { return Bytes(text.begin(), text.end()); }

std::string Url(const ScriptedPeer& peer, const std::string& path) {
  return "http://127.0.0.1:" + std::to_string(peer.Port()) + path;
}

// The request OpenURL sends for `path`.
std::string GetRequest(const ScriptedPeer& peer, const std::string& path) {
  return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(peer.Port()) +
         "\r\nUser-Agent: Corvanta Inet Agent\r\nConnection: Keep-Alive\r\n\r\n";
}

// Records the totals of Receiving.
class Recorder : public WinINetEvents {
 public:
  explicit Recorder(WinINet& inet) : inet_(inet) { inet_.SetEventSink(this); }
  ~Recorder() override { inet_.SetEventSink(nullptr); }
  void Receiving(int32_t Size) override { totals.push_back(Size); }
  std::vector<int32_t> totals;

 private:
  WinINet& inet_;
};

TEST(WinINetPeer, SendsExactlyTheExpectedRequest) {
  ScriptedPeer peer;
  std::string expected = GetRequest(peer, "/a%20b/c?q=1");
  peer.Receive(expected.size()).Send(B("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"));
  peer.Start();
  WinINet inet;
  EXPECT_EQ(inet.OpenURL(Url(peer, "/a b/./c?q=1#frag")).ToString(), "ok");
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  EXPECT_EQ(peer.Received(0), B(expected));
}

// A peer at a port below 32768 (Execute takes the port as a 16-bit number) that records one
// request with its body and answers it with an empty 200.
class OneRequestPeer {
 public:
  OneRequestPeer() : listener_(testing::ListenOnFreeLoopbackPort(port_)) {
    thread_ = std::thread([this] { Serve(); });
  }
  ~OneRequestPeer() {
    if (thread_.joinable()) thread_.join();
    ::close(listener_);
  }
  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  uint16_t Port() const { return port_; }
  // The whole request, once the exchange is over.
  std::string Request() {
    thread_.join();
    return request_;
  }

 private:
  void Serve() {
    pollfd waiting{listener_, POLLIN, 0};
    if (::poll(&waiting, 1, 10000) != 1) return;
    int fd = ::accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    char buffer[4096];
    while (request_.size() < (1 << 20) && !Complete()) {
      pollfd readable{fd, POLLIN, 0};
      if (::poll(&readable, 1, 10000) != 1) break;
      ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
      if (n <= 0) break;
      request_.append(buffer, static_cast<size_t>(n));
    }
    std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    (void)::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    ::close(fd);
  }
  // Whether the head and the body its Content-Length announces have arrived.
  bool Complete() const {
    size_t end = request_.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    size_t length_at = request_.find("Content-Length: ");
    size_t length = length_at < end ? std::stoul(request_.substr(length_at + 16)) : 0;
    return request_.size() >= end + 4 + length;
  }

  uint16_t port_ = 0;
  int listener_;
  std::string request_;
  std::thread thread_;
};

TEST(WinINetPeer, CallerHeadersAreAddedOrReplaceOnesOfTheSameName) {
  OneRequestPeer peer;
  WinINet inet;
  Variant body(std::string("hi"));
  inet.Execute(peer.Url("/\u00e4"), "POST", body,
               "X-A: 1\r\nconnection: close\r\nX-A: 2\r\nAccept-Language:\r\n"
               "X-Name: Ren\u00e9\r\n");
  EXPECT_EQ(peer.Request(), "POST /%E4 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(peer.Port()) +
                                "\r\nUser-Agent: Corvanta Inet Agent\r\nconnection: close\r\n"
                                "X-A: 2\r\nX-Name: Ren\xE9\r\nContent-Length: 2\r\n\r\nhi");
}

TEST(WinINetPeer, BareLineFeedHeadersReadBackWithCrLf) {
  ScriptedPeer peer;
  std::string request = GetRequest(peer, "/");
  peer.Receive(request.size()).Send(B("HTTP/1.1 200 OK\nX-A: 1\nContent-Length: 0\n\n"));
  peer.Start();
  WinINet inet;
  inet.OpenURL(Url(peer, "/"));
  EXPECT_EQ(inet.GetHeader(), "HTTP/1.1 200 OK\r\nX-A: 1\r\nContent-Length: 0\r\n\r\n");
}

struct FailureCase {
  const char* name;
  const char* reply;  // sent after the request, then the connection closes
  bool reset;
  int32_t error;
  const char* text;
};

class WinINetPeerFailures : public ::testing::TestWithParam<FailureCase> {};

TEST_P(WinINetPeerFailures, RaiseTheirWinInetNumbers) {
  const FailureCase& c = GetParam();
  ScriptedPeer peer;
  peer.Receive(GetRequest(peer, "/").size()).Send(B(c.reply)).Close(c.reset);
  peer.Start();
  WinINet inet;
  Error e = RaisedError([&] { inet.OpenURL(Url(peer, "/")); });
  EXPECT_EQ(e.Number(), c.error) << c.name;
  EXPECT_EQ(e.Description(), c.text) << c.name;
  EXPECT_TRUE(peer.Finish()) << peer.Failure();
}

INSTANTIATE_TEST_SUITE_P(
    Replies, WinINetPeerFailures,
    ::testing::Values(
        FailureCase{"garbage status line", "garbage\r\n\r\n", false, 12152,
                    "The server returned an invalid or unrecognized response"},
        FailureCase{"close before the response", "", false, 12152,
                    "The server returned an invalid or unrecognized response"},
        FailureCase{"reset mid-body", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789",
                    true, 12031, "The connection with the server was reset"},
        FailureCase{"short body", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789",
                    false, 12030, "The connection with the server was terminated abnormally"},
        FailureCase{"far shorter body than announced",
                    "HTTP/1.1 200 OK\r\nContent-Length: 900000000\r\n\r\n0123456789", false, 12030,
                    "The connection with the server was terminated abnormally"},
        FailureCase{"bad chunk size", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
                    false, 12030, "The connection with the server was terminated abnormally"}));

TEST(WinINetPeer, StalledServerTimesOutWith12002AfterTheReceiveTimeout) {
  ScriptedPeer peer;
  peer.Receive(GetRequest(peer, "/").size()).Stall();
  peer.Start();
  WinINet inet;
  inet.SetReceiveTimeout(300);
  auto start = std::chrono::steady_clock::now();
  Error e = RaisedError([&] { inet.OpenURL(Url(peer, "/")); });
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(e.Number(), 12002);
  EXPECT_EQ(e.Description(), "The operation timed out");
  EXPECT_GE(waited, std::chrono::milliseconds(300));
  EXPECT_LT(waited, std::chrono::milliseconds(5000));
}

TEST(WinINetPeer, StallMidBodyTimesOutAfterTheBytesThatArrived) {
  ScriptedPeer peer;
  peer.Receive(GetRequest(peer, "/").size())
      .Send(B("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789"))
      .Stall();
  peer.Start();
  WinINet inet;
  inet.SetReceiveTimeout(200);
  Recorder recorder(inet);
  Error e = RaisedError([&] { inet.OpenURL(Url(peer, "/")); });
  EXPECT_EQ(e.Number(), 12002);
  EXPECT_TRUE(recorder.totals.empty());  // the chunk was never completed
}

}  // namespace
}  // namespace pelmora

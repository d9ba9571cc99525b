// TlsSocketApi against a TLS 1.3 server on loopback (OpenSSL on a thread of the test): one Recv
// takes every record that has arrived, an end behind them comes at the next call, and Poll sees
// records the session has already read from the socket.
#include "pelmora/net/internal/tls_socket_api.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "pelmora/testing/web_server.h"

namespace pelmora::net_internal {
namespace {

constexpr size_t kRecord = 1000;
// A TLS 1.3 record of kRecord bytes on the wire: header, data, content type, tag.
constexpr size_t kRecordOnWire = 5 + kRecord + 1 + 16;
// The close notification's record.
constexpr size_t kCloseOnWire = 5 + 2 + 1 + 16;

enum class Ending { kCloseNotify, kCut, kStayOpen };

class TlsSocketApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = pelmora::testing::MakeScratchFolder("tls-socket-api");
    pelmora::testing::WriteTestCertificates(folder_);
    pem_ = folder_ + "/self-signed.pem";
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    ASSERT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::listen(listener_, 1), 0);
    ASSERT_EQ(::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size), 0);
    port_ = ntohs(address.sin_port);
  }

  void TearDown() override {
    release_.set_value();
    if (server_.joinable()) server_.join();
    ::close(listener_);
    std::filesystem::remove_all(folder_);
  }

  // Serves one connection: the handshake, one byte from the client, then three records of
  // kRecord bytes written one by one, then the ending.
  void Serve(Ending ending) {
    server_ = std::thread([this, ending] {
      const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      SSL_CTX* context = SSL_CTX_new(TLS_server_method());
      SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
      SSL_CTX_set_num_tickets(context, 0);
      SSL_CTX_use_certificate_chain_file(context, pem_.c_str());
      SSL_CTX_use_PrivateKey_file(context, pem_.c_str(), SSL_FILETYPE_PEM);
      SSL* ssl = SSL_new(context);
      SSL_set_fd(ssl, fd);
      char go = 0;
      if (SSL_accept(ssl) == 1 && SSL_read(ssl, &go, 1) == 1) {
        const std::string record(kRecord, 'r');
        for (int i = 0; i < 3; ++i) SSL_write(ssl, record.data(), static_cast<int>(kRecord));
        if (ending == Ending::kCloseNotify) SSL_shutdown(ssl);
        if (ending == Ending::kStayOpen) release_future_.wait();
      }
      SSL_free(ssl);
      SSL_CTX_free(context);
      ::close(fd);
    });
  }

  // Connects, pins the server's certificate, runs the handshake and sends the byte that starts
  // the server's records; -1 on failure.
  int Connect(TlsSocketApi& api) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port_);
    std::string message;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        api.Handshake(fd, "127.0.0.1", port_, 10000, message) != 0 ||
        api.Send(fd, "g", 1, 0).value != 1) {
      ADD_FAILURE() << message;
      ::close(fd);
      return -1;
    }
    return fd;
  }

  // Waits (at most 10 s) until `count` bytes have arrived on the socket, without taking them.
  static bool Arrived(int fd, size_t count) {
    const int flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    timeval limit{.tv_sec = 10, .tv_usec = 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    std::vector<char> peek(count);
    const ssize_t seen = ::recv(fd, peek.data(), count, MSG_PEEK | MSG_WAITALL);
    ::fcntl(fd, F_SETFL, flags);
    return seen == static_cast<ssize_t>(count);
  }

  TlsSocketApi MakeApi() {
    TlsClientSettings settings;
    settings.enabled = true;
    settings.fingerprint = pelmora::testing::PemCertificateFingerprint(pem_);
    return TlsSocketApi(SystemSocketApi(), settings);
  }

  std::string folder_;
  std::string pem_;
  int listener_ = -1;
  uint16_t port_ = 0;
  std::thread server_;
  std::promise<void> release_;
  std::shared_future<void> release_future_ = release_.get_future().share();
};

TEST_F(TlsSocketApiTest, OneReceiveTakesEveryRecordThatArrivedAndTheEndComesNext) {
  for (Ending ending : {Ending::kCloseNotify, Ending::kCut}) {
    SCOPED_TRACE(ending == Ending::kCloseNotify ? "close notification" : "cut");
    if (server_.joinable()) server_.join();
    Serve(ending);
    TlsSocketApi api = MakeApi();
    const int fd = Connect(api);
    ASSERT_GE(fd, 0);
    const size_t sent = 3 * kRecordOnWire + (ending == Ending::kCloseNotify ? kCloseOnWire : 0);
    ASSERT_TRUE(Arrived(fd, sent));
    std::vector<char> buffer(10 * kRecord);
    const SocketResult first = api.Recv(fd, buffer.data(), buffer.size(), 0);
    EXPECT_EQ(first.value, static_cast<int64_t>(3 * kRecord));
    EXPECT_EQ(std::count(buffer.begin(), buffer.begin() + 3 * kRecord, 'r'), 3 * kRecord);
    const SocketResult end = api.Recv(fd, buffer.data(), buffer.size(), 0);
    EXPECT_EQ(end.value, 0);
    EXPECT_EQ(end.error, 0);
    api.Close(fd);
  }
}

TEST_F(TlsSocketApiTest, PollSeesRecordsAlreadyTakenFromTheSocket) {
  Serve(Ending::kStayOpen);
  TlsSocketApi api = MakeApi();
  const int fd = Connect(api);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(Arrived(fd, 3 * kRecordOnWire));
  std::vector<char> buffer(10 * kRecord);
  // The first record only: the session reads the others from the socket along with it.
  ASSERT_EQ(api.Recv(fd, buffer.data(), kRecord, 0).value, static_cast<int64_t>(kRecord));
  EXPECT_EQ(api.Poll(fd, POLLIN, 0).value & POLLIN, POLLIN);
  EXPECT_EQ(api.Recv(fd, buffer.data(), buffer.size(), 0).value, static_cast<int64_t>(2 * kRecord));
  EXPECT_EQ(api.Poll(fd, POLLIN, 0).value, 0);
  const SocketResult nothing = api.Recv(fd, buffer.data(), buffer.size(), 0);
  EXPECT_EQ(nothing.error, EAGAIN);
  api.Close(fd);
}

}  // namespace
}  // namespace pelmora::net_internal

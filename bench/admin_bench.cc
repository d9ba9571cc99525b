// Administration client round trips next to a plain TCP ping-pong.
//
// A looping peer thread plays a minimal administration service over loopback: it accepts the
// login, then answers every request block (a "T" result reply for FileExists; one output reply
// and a normal-end status for a command). BM_AdminFileExists measures one FileExists round trip
// (1500-byte size message + 1500-byte request block out, one 1500-byte reply back);
// BM_PlainPingPong1500 measures a plain 1500-byte send / 1500-byte echo on plain sockets with
// TCP_NODELAY; BM_AdminSyncCreateProcess runs a trivial command. Compare items_per_second:
//   build/h/bench/pelmora_bench --benchmark_filter='Admin|PlainPingPong' --benchmark_repetitions=5
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

#include "bench/loopback_listener.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace admin = pelmora::admin;

bool ReadExactly(int fd, uint8_t* out, size_t n) {
  for (size_t got = 0; got < n;) {
    ssize_t r = ::recv(fd, out + got, n - got, 0);
    if (r <= 0) return false;
    got += static_cast<size_t>(r);
  }
  return true;
}

bool WriteAll(int fd, const Bytes& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    ssize_t r = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (r <= 0) return false;
    sent += static_cast<size_t>(r);
  }
  return true;
}

void NoDelay(int fd) {
  int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

// A loopback listener whose one accepted connection is served by `serve` on a thread.
class LoopingPeer {
 public:
  explicit LoopingPeer(std::function<void(int fd)> serve) {
    sockaddr_in address;
    int listener = pelmora::bench::ListenOnLoopback(address);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([listener, serve = std::move(serve)] {
      int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      ::close(listener);
      if (fd < 0) return;
      NoDelay(fd);
      serve(fd);
      ::close(fd);
    });
  }
  ~LoopingPeer() { thread_.join(); }
  uint16_t Port() const { return port_; }

 private:
  uint16_t port_ = 0;
  std::thread thread_;
};

int32_t Int32At(const Bytes& bytes, size_t offset) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = (value << 8) | bytes[offset + i];
  return static_cast<int32_t>(value);
}

// The minimal service: answers the login, then each request until the client closes. Like the
// plain peer, it does no per-request building for FileExists: its one reply is made once and only
// the sequence number (bytes 3..6, copied from the request) changes.
void ServeAdmin(int fd) {
  Bytes packet(admin::kPacketSize);
  auto reply = [&](const std::vector<Bytes>& datas) {
    Bytes out;
    for (const Bytes& data : datas) {
      Bytes framed = admin::BuildFramedPacket(Int32At(packet, 3), data);
      out.insert(out.end(), framed.begin(), framed.end());
    }
    return WriteAll(fd, out);
  };
  if (!ReadExactly(fd, packet.data(), packet.size())) return;
  if (!reply({admin::BuildResultReply(true, 0, "")})) return;
  Bytes result = admin::BuildFramedPacket(0, admin::BuildResultReply(true, 0, ""));
  // A request is a size message and a block of at least 1500 bytes: both are read at once.
  Bytes request(2 * admin::kPacketSize);
  while (ReadExactly(fd, request.data(), request.size())) {
    const int32_t total = Int32At(request, admin::kHeaderSize);
    if (total < 2 || total > (1 << 20)) return;
    if (static_cast<size_t>(total) > admin::kPacketSize) {
      Bytes rest(static_cast<size_t>(total) - admin::kPacketSize);
      if (!ReadExactly(fd, rest.data(), rest.size())) return;
    }
    bool sent = false;
    if (request[admin::kPacketSize] == 20) {
      std::copy(request.begin(), request.begin() + admin::kPacketSize, packet.begin());
      sent = reply(
          {admin::BuildCommandOutputReply("ok\r\n"), admin::BuildCommandStatusReply(9000)});
    } else {
      std::copy(request.begin() + 3, request.begin() + 7, result.begin() + 3);
      sent = WriteAll(fd, result);
    }
    if (!sent) return;
  }
}

void BM_AdminFileExists(benchmark::State& state) {
  LoopingPeer peer(ServeAdmin);
  admin::RCFSO fso;
  if (!fso.Connect("127.0.0.1", peer.Port(), "u", "p", true)) state.SkipWithError("login");
  for (auto _ : state) {
    if (!fso.FileExists("C:\\Data\\a.txt")) state.SkipWithError("FileExists");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  fso.Disconnect();
}
BENCHMARK(BM_AdminFileExists)->UseRealTime();

void BM_AdminSyncCreateProcess(benchmark::State& state) {
  LoopingPeer peer(ServeAdmin);
  admin::RCFSO fso;
  if (!fso.Connect("127.0.0.1", peer.Port(), "u", "p", true)) state.SkipWithError("login");
  for (auto _ : state) {
    if (!fso.SyncCreateProcess("cmd /c echo ok", 1000)) state.SkipWithError("command");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  fso.Disconnect();
}
BENCHMARK(BM_AdminSyncCreateProcess)->UseRealTime();

// The plain peer: a 1500-byte message out, its 1500-byte echo back, plain sockets.
void BM_PlainPingPong1500(benchmark::State& state) {
  LoopingPeer peer([](int fd) {
    Bytes message(1500);
    while (ReadExactly(fd, message.data(), message.size()) && WriteAll(fd, message)) {
    }
  });
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(peer.Port());
  ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  NoDelay(fd);
  Bytes message(1500, 0x5A);
  for (auto _ : state) {
    if (!WriteAll(fd, message) || !ReadExactly(fd, message.data(), message.size())) {
      state.SkipWithError("echo");
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  ::close(fd);
}
BENCHMARK(BM_PlainPingPong1500)->UseRealTime();

}  // namespace

// WinSock bulk receive next to its plain peer.
//
// A sender thread pushes 64 MiB over loopback TCP. BM_WinSockGetData1500 reads it through
// WinSock::GetData in 1500-byte pieces (the administration client's piece size);
// BM_PlainRecv1500 reads the same stream with a plain recv() loop of 1500-byte requests on a plain
// socket; BM_PlainRecv64K shows a plain reader with 64 KiB requests for scale. Compare
// bytes_per_second within one run:
//   build/h/bench/pelmora_bench --benchmark_filter='WinSock|PlainRecv' --benchmark_repetitions=5
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <thread>
#include <vector>

#include "bench/loopback_listener.h"
#include "pelmora/net/winsock.h"

namespace {

constexpr size_t kTotal = 64 << 20;
constexpr size_t kPiece = 1500;

// A loopback connection whose far end sends kTotal bytes from a thread and then closes.
class SendingPeer {
 public:
  SendingPeer() {
    sockaddr_in address;
    int listener = pelmora::bench::ListenOnLoopback(address);
    sender_ = std::thread([address] { Send(address); });
    receiving_fd_ = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listener);
  }
  ~SendingPeer() { sender_.join(); }

  // The receiving end; the caller closes it (or hands it to a WinSock).
  int ReceivingFd() const { return receiving_fd_; }

 private:
  static void Send(sockaddr_in address) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    std::vector<uint8_t> chunk(64 * 1024, 0x5A);
    size_t sent = 0;
    while (sent < kTotal) {
      ssize_t n = ::send(fd, chunk.data(), std::min(chunk.size(), kTotal - sent), MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    ::close(fd);
  }

  std::thread sender_;
  int receiving_fd_ = -1;
};

void BM_WinSockGetData1500(benchmark::State& state) {
  pelmora::WinSock socket;
  socket.SetReceiveTimeout(10000);
  std::vector<uint8_t> piece;
  for (auto _ : state) {
    SendingPeer peer;
    socket.Attach(peer.ReceivingFd());
    size_t received = 0;
    while (received < kTotal) {
      if (socket.GetData(piece, kPiece) != 0) break;
      received += piece.size();
    }
    socket.Disconnect();
    if (received != kTotal) state.SkipWithError("short transfer");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}
BENCHMARK(BM_WinSockGetData1500)->Unit(benchmark::kMillisecond)->UseRealTime();

// A plain recv() loop asking for `piece` bytes at a time.
void PlainRecvLoop(benchmark::State& state, size_t piece_size) {
  std::vector<uint8_t> piece(piece_size);
  for (auto _ : state) {
    SendingPeer peer;
    int fd = peer.ReceivingFd();
    size_t received = 0;
    while (received < kTotal) {
      ssize_t n = ::recv(fd, piece.data(), piece.size(), 0);
      if (n <= 0) break;
      received += static_cast<size_t>(n);
    }
    ::close(fd);
    if (received != kTotal) state.SkipWithError("short transfer");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

// The plain peer: 1500-byte recv() requests, one system call per piece.
void BM_PlainRecv1500(benchmark::State& state) { PlainRecvLoop(state, kPiece); }
BENCHMARK(BM_PlainRecv1500)->Unit(benchmark::kMillisecond)->UseRealTime();

// For scale: the best a plain reader does with 64 KiB requests.
void BM_PlainRecv64K(benchmark::State& state) { PlainRecvLoop(state, 64 * 1024); }
BENCHMARK(BM_PlainRecv64K)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

// File transfers of the administration client next to a plain TCP pump of the same bytes.
//
// A peer thread plays the service's side over loopback. BM_AdminDownload: the peer announces
// the file with a size message, waits for the go reply and streams the content; the client
// writes it to a local file. BM_PlainDownload: the peer streams the same bytes on a plain socket
// and the client writes them to the same kind of file with recv/write. BM_AdminUpload and
// BM_PlainUpload do the reverse from a local file. Each run reports bytes_per_second and the
// process's peak resident size (peak_rss_mib), which must stay far below the file's size.
// Each download benchmark first makes one untimed transfer, so that neither pays alone for the
// fresh memory its first file in /dev/shm takes.
// The bytes follow a pattern that does not repeat at piece or block boundaries; after the timed
// runs the admin benchmarks check that the downloaded file and the uploaded stream hold exactly
// those bytes and that file times travelled (a mismatch fails the run; intact=1 reports success).
//   build/h/bench/pelmora_bench --benchmark_filter='Download|Upload'
// Files are kept in /dev/shm when it exists. The file size is 1 GiB;
// PELMORA_BENCH_TRANSFER_BYTES overrides it (e.g. 2040109465, 1.9 GiB).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/loopback_listener.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/date.h"
#include "pelmora/common/system.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace admin = pelmora::admin;

constexpr size_t kBlock = 1 << 20;  // the plain pumps' buffer, and the peers' sending block

int64_t TransferBytes() {
  const char* text = std::getenv("PELMORA_BENCH_TRANSFER_BYTES");
  const int64_t value = text != nullptr ? std::atoll(text) : 0;
  return value > 0 && value <= 0x7FFFFFFF ? value : int64_t{1} << 30;
}

// Files live in memory (/dev/shm) where it exists, so that both sides of a comparison measure
// the transfer, not the disk.
std::string BenchFile(const char* name) {
  const bool shm = ::access("/dev/shm", W_OK) == 0;
  return (shm ? std::string("/dev/shm/") : pelmora::GetTempFolder()) + name;
}

bool Exactly(int fd, uint8_t* out, size_t n) {
  for (size_t got = 0; got < n;) {
    const ssize_t r = ::recv(fd, out + got, n - got, 0);
    if (r <= 0) return false;
    got += static_cast<size_t>(r);
  }
  return true;
}

bool SendAll(int fd, const uint8_t* data, size_t n) {
  for (size_t sent = 0; sent < n;) {
    const ssize_t r = ::send(fd, data + sent, n - sent, MSG_NOSIGNAL);
    if (r <= 0) return false;
    sent += static_cast<size_t>(r);
  }
  return true;
}

// The content every transfer carries: byte `offset` is Pattern()[offset % kPeriod]. The period
// is prime to the 1500-byte pieces and the 1 MiB blocks, so a piece or block out of place shows.
constexpr size_t kPeriod = kBlock - 1;

const Bytes& Pattern() {
  static const Bytes pattern = [] {
    Bytes bytes(2 * kPeriod);
    for (size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<uint8_t>((i % kPeriod) * 7 + (i % kPeriod) / 4099);
    }
    return bytes;
  }();
  return pattern;
}

// The pattern from `offset` on; up to kPeriod bytes are valid.
const uint8_t* PatternAt(int64_t offset) {
  return Pattern().data() + static_cast<size_t>(offset % static_cast<int64_t>(kPeriod));
}

// Sends `count` bytes of the pattern.
bool Pump(int fd, int64_t count) {
  for (int64_t sent = 0; sent < count;) {
    const auto n = static_cast<size_t>(std::min<int64_t>(count - sent, kBlock / 2));
    if (!SendAll(fd, PatternAt(sent), n)) return false;
    sent += static_cast<int64_t>(n);
  }
  return true;
}

// Receives `count` bytes; true when they all arrived and the first `expected` of them follow the
// pattern (the rest is padding).
bool Drain(int fd, int64_t count, int64_t expected) {
  Bytes block(kBlock / 2);
  bool intact = true;
  for (int64_t got = 0; got < count;) {
    const auto n = static_cast<size_t>(std::min<int64_t>(count - got, block.size()));
    if (!Exactly(fd, block.data(), n)) return false;
    const auto checked = static_cast<size_t>(std::clamp<int64_t>(expected - got, 0, n));
    intact = intact && std::memcmp(block.data(), PatternAt(got), checked) == 0;
    got += static_cast<int64_t>(n);
  }
  return intact;
}

// Whether the file at `path` holds exactly `size` bytes of the pattern.
bool FileHoldsPattern(const std::string& path, int64_t size) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  Bytes block(kBlock / 2);
  int64_t offset = 0;
  bool intact = true;
  for (ssize_t n; intact && (n = ::read(fd, block.data(), block.size())) > 0;) {
    intact = offset + n <= size &&
             std::memcmp(block.data(), PatternAt(offset), static_cast<size_t>(n)) == 0;
    offset += n;
  }
  ::close(fd);
  return intact && offset == size;
}

// The file times the download peer announces: written (and created) 2021-05-06 07:08:09 UTC,
// read a minute later.
constexpr uint64_t kAnnouncedWrite = 132647584890000000ULL;
constexpr uint64_t kAnnouncedAccess = kAnnouncedWrite + 600000000ULL;

uint64_t FileTimeOf(const timespec& time) {
  return static_cast<uint64_t>(time.tv_sec + pelmora::kFileTimeUnixEpochSeconds) * 10000000ULL +
         static_cast<uint64_t>(time.tv_nsec) / 100;
}

// What the peer found in the uploads it received.
struct UploadChecks {
  std::atomic<bool> intact{true};
  std::atomic<uint64_t> last_write_time{0};
};

// A loopback listener whose one connection is served by `serve` on a thread.
class Peer {
 public:
  explicit Peer(std::function<void(int fd)> serve) {
    sockaddr_in address;
    const int listener = pelmora::bench::ListenOnLoopback(address);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([listener, serve = std::move(serve)] {
      const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      ::close(listener);
      if (fd < 0) return;
      int on = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
      serve(fd);
      ::close(fd);
    });
  }
  ~Peer() { thread_.join(); }
  uint16_t Port() const { return port_; }

 private:
  uint16_t port_ = 0;
  std::thread thread_;
};

int32_t SequenceOf(const Bytes& packet) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = (value << 8) | packet[3 + i];
  return static_cast<int32_t>(value);
}

bool Reply(int fd, const Bytes& packet_received, const Bytes& data) {
  const Bytes framed = admin::BuildFramedPacket(SequenceOf(packet_received), data);
  return SendAll(fd, framed.data(), framed.size());
}

// The service's side: the login, then downloads (code 1) and uploads (code 0) of `size` bytes
// until the client closes; uploads are checked into `checks`.
void ServeTransfers(int fd, int64_t size, UploadChecks* checks) {
  Bytes packet(admin::kPacketSize);
  if (!Exactly(fd, packet.data(), packet.size()) ||
      !Reply(fd, packet, admin::BuildResultReply(true, 0, "")))
    return;
  Bytes request(2 * admin::kPacketSize);
  while (Exactly(fd, request.data(), request.size())) {
    const bool upload = request[admin::kPacketSize] == 0;
    if (upload) {
      if (!Exactly(fd, packet.data(), packet.size()) ||
          !Reply(fd, packet, admin::BuildGoReply(true)))
        return;
      const auto header = admin::ParseTransferHeader(
          admin::ParseFramedPacket(packet, SequenceOf(packet)).data);
      if (!header || header->size != size) checks->intact = false;
      if (header) checks->last_write_time = header->last_write_time;
      const int64_t pieces = (size + 1499) / 1500;
      if (!Drain(fd, pieces * 1500, size)) checks->intact = false;
      if (!Reply(fd, packet, admin::BuildResultReply(true, 0, ""))) return;
      continue;
    }
    admin::TransferHeader header;
    header.size = static_cast<int32_t>(size);
    header.creation_time = kAnnouncedWrite;
    header.last_access_time = kAnnouncedAccess;
    header.last_write_time = kAnnouncedWrite;
    if (!Reply(fd, request, admin::BuildTransferHeader(header))) return;
    if (!Exactly(fd, packet.data(), packet.size()) || !Pump(fd, size)) return;
  }
}

void ReportRss(benchmark::State& state, int64_t size) {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  state.counters["peak_rss_mib"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}

// A scratch file removed when the benchmark program ends (it lives in memory under /dev/shm).
struct ScratchFile {
  std::string path;
  ~ScratchFile() { ::unlink(path.c_str()); }
};

// The local file an upload reads: `size` bytes, made once.
const std::string& UploadSource(int64_t size) {
  static const ScratchFile file{[size] {
    std::string name = BenchFile("pelmora-bench-upload.bin");
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    for (int64_t written = 0; written < size;) {
      const auto n = static_cast<size_t>(std::min<int64_t>(size - written, kBlock / 2));
      if (::write(fd, PatternAt(written), n) != static_cast<ssize_t>(n)) break;
      written += static_cast<int64_t>(n);
    }
    ::close(fd);
    return name;
  }()};
  return file.path;
}

int ConnectPlain(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  return fd;
}

void BM_AdminDownload(benchmark::State& state) {
  const int64_t size = TransferBytes();
  UploadChecks checks;
  Peer peer([size, &checks](int fd) { ServeTransfers(fd, size, &checks); });
  admin::RCFSO fso;
  if (!fso.Connect("127.0.0.1", peer.Port(), "u", "p", true)) state.SkipWithError("login");
  const std::string local = BenchFile("pelmora-bench-download.bin");
  fso.Download(local, "D:\\bench.bin");  // untimed: the file's memory is claimed once
  for (auto _ : state) {
    if (!fso.Download(local, "D:\\bench.bin")) state.SkipWithError("Download");
  }
  fso.Disconnect();
  struct stat info {};  // before reading, which moves the access time
  const bool intact = ::stat(local.c_str(), &info) == 0 &&
                      FileTimeOf(info.st_mtim) == kAnnouncedWrite &&
                      FileTimeOf(info.st_atim) == kAnnouncedAccess && FileHoldsPattern(local, size);
  if (!intact) state.SkipWithError("the downloaded file differs in its bytes or times");
  state.counters["intact"] = intact ? 1 : 0;
  ::unlink(local.c_str());
  ReportRss(state, size);
}
BENCHMARK(BM_AdminDownload)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// The plain download: `size` bytes from a pump into the file `local` with recv/write.
void PlainDownload(int64_t size, const std::string& local) {
  Peer peer([size](int fd) { Pump(fd, size); });
  const int fd = ConnectPlain(peer.Port());
  const int file = ::open(local.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  Bytes block(kBlock);
  for (int64_t left = size; left > 0;) {
    const ssize_t r = ::recv(fd, block.data(), block.size(), 0);
    if (r <= 0 || ::write(file, block.data(), static_cast<size_t>(r)) != r) break;
    left -= r;
  }
  ::close(file);
  ::close(fd);
}

void BM_PlainDownload(benchmark::State& state) {
  const int64_t size = TransferBytes();
  const std::string local = BenchFile("pelmora-bench-download.bin");
  PlainDownload(size, local);  // untimed, as for the admin download
  for (auto _ : state) PlainDownload(size, local);
  ::unlink(local.c_str());
  ReportRss(state, size);
}
BENCHMARK(BM_PlainDownload)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_AdminUpload(benchmark::State& state) {
  const int64_t size = TransferBytes();
  const std::string& source = UploadSource(size);
  UploadChecks checks;
  {
    Peer peer([size, &checks](int fd) { ServeTransfers(fd, size, &checks); });
    admin::RCFSO fso;
    if (!fso.Connect("127.0.0.1", peer.Port(), "u", "p", true)) state.SkipWithError("login");
    for (auto _ : state) {
      if (!fso.Upload(source, "D:\\bench.bin")) state.SkipWithError("Upload");
    }
    fso.Disconnect();
  }  // the peer has seen every upload
  struct stat info {};
  const bool intact = checks.intact && ::stat(source.c_str(), &info) == 0 &&
                      checks.last_write_time == FileTimeOf(info.st_mtim);
  if (!intact) state.SkipWithError("the uploaded stream differs in its bytes or times");
  state.counters["intact"] = intact ? 1 : 0;
  ReportRss(state, size);
}
BENCHMARK(BM_AdminUpload)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_PlainUpload(benchmark::State& state) {
  const int64_t size = TransferBytes();
  const std::string& source = UploadSource(size);
  for (auto _ : state) {
    Peer peer([size](int fd) { Drain(fd, size, size); });
    const int fd = ConnectPlain(peer.Port());
    const int file = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    Bytes block(kBlock);
    for (;;) {
      const ssize_t n = ::read(file, block.data(), block.size());
      if (n <= 0 || !SendAll(fd, block.data(), static_cast<size_t>(n))) break;
    }
    ::close(file);
    ::close(fd);
  }
  ReportRss(state, size);
}
BENCHMARK(BM_PlainUpload)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

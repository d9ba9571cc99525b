// The administration service under load: 1000 concurrent sessions log in, and once all of them
// have, each sends FolderExists requests back to back for a bounded time, against the real
// pelmorad and, for comparison, against a plain epoll peer that answers the same 1500-byte packets
// without any work. The logins are timed apart from the requests (the peer answers a login as it
// answers anything, while the service checks a password and hands the session to its account's
// worker), so requests per second compare the request path alone. Reports requests and logins per
// second, requests per second of the peer's own CPU time (the service's root process and workers,
// or the plain peer's thread: steadier than the rate while other work shares the machine), errors
// (must be 0) and the peak memory of the service's root process and of its account workers
// together:
//   build/h/bench/pelmora_bench --benchmark_filter=Service
// The service binary is found beside the benchmark's build tree (or PELMORAD_BINARY).
#include <benchmark/benchmark.h>
#include <crypt.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/loopback_listener.h"
#include "pelmora/admin/credentials.h"
#include "pelmora/admin/wire.h"

extern char** environ;

namespace {

using Bytes = std::vector<uint8_t>;
namespace wire = pelmora::admin;

constexpr int kSessions = 1000;
constexpr auto kLoadTime = std::chrono::seconds(4);

// One client connection's state: bytes still to send, and a reply being read.
struct Connection {
  int fd = -1;
  Bytes out;
  std::size_t sent = 0;
  Bytes in = Bytes(wire::kPacketSize);
  std::size_t got = 0;
  int32_t sequence = wire::kFirstSequenceNumber;
  bool logged_in = false;
};

void QueueRequest(Connection& c, const Bytes& login) {
  c.sequence = wire::NextSequenceNumber(c.sequence);
  if (!c.logged_in) {
    c.out = wire::BuildFramedPacket(c.sequence, login);
  } else {
    std::vector<Bytes> args = {wire::EncodeUnicodeArgument("C:\\")};
    c.out =
        wire::BuildFramedPacket(c.sequence, wire::BuildSizeMessage(wire::RequestBlockTotal(args)));
    Bytes block = wire::BuildRequestBlock(wire::RequestCode::kFolderExists, args);
    c.out.insert(c.out.end(), block.begin(), block.end());
  }
  c.sent = 0;
  c.got = 0;
}

struct LoadResult {
  long requests = 0;
  long errors = 0;
  double seconds = 0;
  double login_seconds = 0;  // from the first login sent to the last answered
  double cpu_seconds = 0;    // the CPU time the peer spent on the requests
};

// The CPU time, in seconds, the peer under load has spent so far.
using CpuClock = std::function<double()>;

// The longest the logins of all sessions may take before the load starts without the rest.
constexpr auto kLoginTime = std::chrono::seconds(60);

int ConnectTo(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    ::close(fd);
    return -1;
  }
  ::fcntl(fd, F_SETFL, O_NONBLOCK);
  return fd;
}

// Handles readiness of one connection; false when it failed. A connection whose login has been
// answered waits without a request until `counting`.
bool Step(Connection& c, const Bytes& login, LoadResult& result, bool counting) {
  while (c.sent < c.out.size()) {
    ssize_t n = ::send(c.fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL);
    if (n < 0) return errno == EAGAIN;
    c.sent += static_cast<std::size_t>(n);
  }
  while (c.got < c.in.size()) {
    ssize_t n = ::recv(c.fd, c.in.data() + c.got, c.in.size() - c.got, 0);
    if (n < 0) return errno == EAGAIN;
    if (n == 0) return false;
    c.got += static_cast<std::size_t>(n);
  }
  wire::FramedMessage reply = wire::ParseFramedPacket(c.in, c.sequence);
  if (reply.fault != wire::PacketFault::kNone || reply.data.empty() || reply.data[0] != 'T') {
    return false;
  }
  if (c.logged_in && counting) ++result.requests;
  c.logged_in = true;
  if (!counting) {
    c.out.clear();
    c.sent = 0;
    return true;
  }
  QueueRequest(c, login);
  return Step(c, login, result, counting);
}

// Waits for readiness on `epoll` until `end` or until `done()`, stepping the ready connections.
template <typename Done>
void Drive(int epoll, std::vector<Connection>& connections, const Bytes& login,
           LoadResult& result, bool counting, std::chrono::steady_clock::time_point end,
           Done done) {
  std::vector<epoll_event> events(256);
  while (std::chrono::steady_clock::now() < end && !done()) {
    int ready = ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), 100);
    for (int i = 0; i < ready; ++i) {
      Connection& c = connections[events[i].data.u32];
      if (c.fd >= 0 && !Step(c, login, result, counting)) {
        ++result.errors;
        ::close(c.fd);
        c.fd = -1;
      }
    }
  }
}

// Opens kSessions connections to `port`, logs every one in, and then runs the request loop for
// kLoadTime.
LoadResult RunLoad(int port, const Bytes& login, const CpuClock& peer_cpu) {
  LoadResult result;
  std::vector<Connection> connections(kSessions);
  int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  auto login_start = std::chrono::steady_clock::now();
  for (int i = 0; i < kSessions; ++i) {
    connections[i].fd = ConnectTo(port);
    if (connections[i].fd < 0) {
      ++result.errors;
      continue;
    }
    QueueRequest(connections[i], login);
    epoll_event event{EPOLLIN | EPOLLOUT | EPOLLET, {.u32 = static_cast<uint32_t>(i)}};
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, connections[i].fd, &event);
  }
  auto all_logged_in = [&connections] {
    return std::all_of(connections.begin(), connections.end(),
                       [](const Connection& c) { return c.fd < 0 || c.logged_in; });
  };
  Drive(epoll, connections, login, result, false, login_start + kLoginTime, all_logged_in);
  auto start = std::chrono::steady_clock::now();
  double cpu_start = peer_cpu();
  result.login_seconds = std::chrono::duration<double>(start - login_start).count();
  for (Connection& c : connections) {
    if (c.fd < 0) continue;
    if (!c.logged_in) {
      ++result.errors;
      ::close(c.fd);
      c.fd = -1;
      continue;
    }
    QueueRequest(c, login);
    if (!Step(c, login, result, true)) {
      ++result.errors;
      ::close(c.fd);
      c.fd = -1;
    }
  }
  Drive(epoll, connections, login, result, true, start + kLoadTime, [] { return false; });
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.cpu_seconds = peer_cpu() - cpu_start;
  for (Connection& c : connections) {
    if (c.fd >= 0) ::close(c.fd);
  }
  ::close(epoll);
  return result;
}

// The plain peer: answers the first packet of a connection and then every 3000 bytes with a
// 1500-byte "T" reply carrying the last framed sequence number, doing nothing else.
void PlainPeer(int listener, const std::atomic<bool>* stop, std::atomic<pid_t>* thread_id) {
  *thread_id = ::gettid();
  int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  ::fcntl(listener, F_SETFL, O_NONBLOCK);
  epoll_event accept_event{EPOLLIN, {.fd = listener}};
  ::epoll_ctl(epoll, EPOLL_CTL_ADD, listener, &accept_event);
  struct Peer {
    Bytes pending;
    bool greeted = false;
  };
  std::vector<Peer> peers(65536);
  std::vector<epoll_event> events(256);
  Bytes reply_data = wire::BuildResultReply(true, 0, "");
  while (!*stop) {
    int ready = ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), 50);
    for (int i = 0; i < ready; ++i) {
      int fd = events[i].data.fd;
      if (fd == listener) {
        for (int client; (client = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK)) >= 0;) {
          peers[client] = Peer{};
          epoll_event event{EPOLLIN, {.fd = client}};
          ::epoll_ctl(epoll, EPOLL_CTL_ADD, client, &event);
        }
        continue;
      }
      Peer& peer = peers[fd];
      uint8_t buffer[16384];
      ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
      if (n <= 0) {
        ::close(fd);
        continue;
      }
      peer.pending.insert(peer.pending.end(), buffer, buffer + n);
      std::size_t unit = peer.greeted ? 3000 : 1500;
      while (peer.pending.size() >= unit) {
        int32_t sequence = 0;
        std::memcpy(&sequence, peer.pending.data() + 3, 4);
        Bytes reply = wire::BuildFramedPacket(sequence, reply_data);
        (void)!::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        peer.pending.erase(peer.pending.begin(), peer.pending.begin() + unit);
        peer.greeted = true;
        unit = 3000;
      }
    }
  }
  ::close(epoll);
}

std::string ServiceBinary() {
  if (const char* binary = std::getenv("PELMORAD_BINARY")) return binary;
  std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  return (self.parent_path().parent_path() / "pelmorad" / "pelmorad").string();
}

// Starts pelmorad on a free port with one fast-hash account; returns its pid and port.
pid_t StartService(const std::string& folder, int& port) {
  std::filesystem::create_directories(folder + "/c");
  crypt_data data{};
  std::string hash = crypt_rn("bench", "$6$rounds=1000$benchsalt", &data, sizeof(data));
  std::ofstream(folder + "/pelmorad.toml")
      << "[drives]\nC = \"" << folder << "/c\"\n[accounts.bench]\npassword = \"" << hash
      << "\"\n[limits]\nsessions = 1100\nsessions_per_address = 1100\nunauthenticated = 1100\n"
      << "unauthenticated_start = 1100\n";
  ::chmod((folder + "/pelmorad.toml").c_str(), 0600);
  std::string fifo = folder + "/port";
  ::mkfifo(fifo.c_str(), 0600);
  int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  std::string binary = ServiceBinary();
  std::vector<std::string> args = {binary,     "--config",    folder + "/pelmorad.toml",
                                   "--listen", "127.0.0.1:0", "--port-file",
                                   fifo};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  ::posix_spawn(&pid, binary.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  pollfd entry{reader, POLLIN, 0};
  char text[16] = {};
  if (::poll(&entry, 1, 20000) == 1) (void)!::read(reader, text, sizeof(text) - 1);
  ::close(reader);
  port = std::atoi(text);
  return pid;
}

// The "VmHWM" (peak resident kilobytes) or "PPid" field of process `pid`'s status.
long StatusField(pid_t pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field + ":", 0) == 0) return std::atol(line.c_str() + field.size() + 1);
  }
  return 0;
}

// `pid` and its child processes (the account workers).
std::vector<pid_t> WithChildren(pid_t pid) {
  std::vector<pid_t> pids = {pid};
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    pid_t child = static_cast<pid_t>(std::atoi(entry.path().filename().c_str()));
    if (child > 0 && StatusField(child, "PPid") == pid) pids.push_back(child);
  }
  return pids;
}

// The peak resident kilobytes of `pid` and of its child processes.
long PeakKilobytes(pid_t pid) {
  long total = 0;
  for (pid_t one : WithChildren(pid)) total += StatusField(one, "VmHWM");
  return total;
}

// The user and system CPU seconds of the process or thread whose stat file is `path`.
double CpuSeconds(const std::string& path) {
  std::ifstream file(path);
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::size_t name_end = text.rfind(')');
  if (name_end == std::string::npos) return 0;
  std::istringstream fields(text.substr(name_end + 2));
  std::string field;
  double ticks = 0;
  // After the name: state is field 3, utime and stime are fields 14 and 15.
  for (int number = 3; number <= 15 && fields >> field; ++number) {
    if (number >= 14) ticks += std::atof(field.c_str());
  }
  return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

void Report(benchmark::State& state, const LoadResult& result) {
  state.counters["requests_per_second"] = static_cast<double>(result.requests) / result.seconds;
  state.counters["logins_per_second"] = kSessions / result.login_seconds;
  // Requests per second of the peer's own CPU time: steadier than the rate on a shared machine.
  state.counters["requests_per_cpu_second"] =
      result.cpu_seconds > 0 ? static_cast<double>(result.requests) / result.cpu_seconds : 0;
  state.counters["errors"] = static_cast<double>(result.errors);
  state.counters["sessions"] = kSessions;
}

void BM_ServiceThousandSessions(benchmark::State& state) {
  rlimit files{4096, 4096};
  ::setrlimit(RLIMIT_NOFILE, &files);
  std::string folder = "/tmp/pelmorad-bench-" + std::to_string(::getpid());
  int port = 0;
  pid_t pid = StartService(folder, port);
  Bytes login =
      wire::BuildLoginMessage(wire::EncodeCredential("bench"), wire::EncodeCredential("bench"));
  for (auto _ : state) {
    if (port <= 0) {
      state.SkipWithError("pelmorad did not start");
      break;
    }
    Report(state, RunLoad(port, login, [pid] {
             double total = 0;
             for (pid_t one : WithChildren(pid)) {
               total += CpuSeconds("/proc/" + std::to_string(one) + "/stat");
             }
             return total;
           }));
  }
  state.counters["service_peak_mib"] = static_cast<double>(PeakKilobytes(pid)) / 1024.0;
  ::kill(pid, SIGTERM);
  ::waitpid(pid, nullptr, 0);
  std::filesystem::remove_all(folder);
}
BENCHMARK(BM_ServiceThousandSessions)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

void BM_ServicePlainPeerThousandSessions(benchmark::State& state) {
  rlimit files{4096, 4096};
  ::setrlimit(RLIMIT_NOFILE, &files);
  sockaddr_in address{};
  int listener = pelmora::bench::ListenOnLoopback(address);
  ::listen(listener, 1024);
  std::atomic<bool> stop{false};
  std::atomic<pid_t> peer_thread{0};
  std::thread peer(PlainPeer, listener, &stop, &peer_thread);
  Bytes login = wire::BuildLoginMessage("bench", "bench");
  for (auto _ : state) {
    Report(state, RunLoad(ntohs(address.sin_port), login, [&peer_thread] {
             return CpuSeconds("/proc/self/task/" + std::to_string(peer_thread.load()) + "/stat");
           }));
  }
  stop = true;
  peer.join();
  ::close(listener);
}
BENCHMARK(BM_ServicePlainPeerThousandSessions)
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();

}  // namespace

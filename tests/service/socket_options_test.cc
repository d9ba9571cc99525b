// The service's end of a client connection, before the login (the root process's) and after it
// (the account worker's), has TCP_NODELAY: a reply written in pieces (a size message, then its
// record) must not wait for the client's acknowledgement of the first piece, which a client
// waiting for the record delays by up to 40 ms a request.
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "pelmora/admin/wire.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

// The local port of socket `fd`.
int LocalPort(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

// `pid` and its child processes.
std::vector<pid_t> WithChildren(pid_t pid) {
  std::vector<pid_t> pids = {pid};
  DIR* proc = ::opendir("/proc");
  while (dirent* entry = proc != nullptr ? ::readdir(proc) : nullptr) {
    pid_t child = static_cast<pid_t>(std::atoi(entry->d_name));
    std::ifstream status("/proc/" + std::to_string(child) + "/status");
    for (std::string line; child > 0 && std::getline(status, line);) {
      if (line.rfind("PPid:", 0) == 0 && std::atoi(line.c_str() + 5) == pid) pids.push_back(child);
    }
  }
  if (proc != nullptr) ::closedir(proc);
  return pids;
}

// TCP_NODELAY of the connection that service `service` (or one of its workers) holds with the
// client's local port `client_port`; nullopt when no process of it holds that connection.
std::optional<bool> NoDelayOfServiceEnd(pid_t service, int client_port) {
  for (pid_t pid : WithChildren(service)) {
    int process = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (process < 0) continue;
    std::string folder = "/proc/" + std::to_string(pid) + "/fd";
    DIR* fds = ::opendir(folder.c_str());
    std::optional<bool> found;
    while (dirent* entry = fds != nullptr && !found ? ::readdir(fds) : nullptr) {
      int theirs = std::atoi(entry->d_name);
      if (entry->d_name[0] == '.') continue;
      int mine = static_cast<int>(::syscall(SYS_pidfd_getfd, process, theirs, 0));
      if (mine < 0) continue;
      sockaddr_in peer{};
      socklen_t size = sizeof(peer);
      int on = 0;
      socklen_t on_size = sizeof(on);
      if (::getpeername(mine, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
          peer.sin_family == AF_INET && ntohs(peer.sin_port) == client_port &&
          ::getsockopt(mine, IPPROTO_TCP, TCP_NODELAY, &on, &on_size) == 0) {
        found = on != 0;
      }
      ::close(mine);
    }
    if (fds != nullptr) ::closedir(fds);
    ::close(process);
    if (found) return found;
  }
  return std::nullopt;
}

TEST(ServiceSocketOptions, BothEndsOfTheServiceSendRepliesWithoutNagleDelay) {
  if (::geteuid() != 0) GTEST_SKIP() << "reading another process's descriptors needs root";
  ServiceProcess service;
  ASSERT_TRUE(service.Start()) << service.ErrorOutput();
  RawClient waiting;  // held by the root process, not logged in
  ASSERT_TRUE(waiting.Connect(service.port()));
  RawClient served;
  ASSERT_TRUE(served.Connect(service.port()));
  auto login = served.Login("operator", kOperatorPassword);
  ASSERT_TRUE(login && login->success);
  ASSERT_TRUE(served.RequestPath(pelmora::admin::RequestCode::kFolderExists, "C:\\"));
  auto reply = served.ReadResult();
  ASSERT_TRUE(reply && reply->success);  // the worker holds the connection by now

  EXPECT_EQ(NoDelayOfServiceEnd(service.pid(), LocalPort(waiting.fd())), std::optional(true));
  EXPECT_EQ(NoDelayOfServiceEnd(service.pid(), LocalPort(served.fd())), std::optional(true));
}

}  // namespace
}  // namespace pelmorad::testing

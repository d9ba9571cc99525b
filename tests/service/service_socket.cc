#include "tests/service/service_socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

namespace pelmorad::testing {
namespace {

// `pid` and its child processes.
std::vector<pid_t> WithChildren(pid_t pid) {
  std::vector<pid_t> pids{pid};
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const pid_t child = std::atoi(entry.path().filename().c_str());
    if (child <= 0) continue;
    std::ifstream status(entry.path() / "status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("PPid:", 0) == 0 && std::atoi(line.c_str() + 5) == pid) pids.push_back(child);
    }
  }
  return pids;
}

// The option `name` of the connection with peer port `client_port` among `pid`'s descriptors.
std::optional<int> OptionIn(pid_t pid, uint16_t client_port, int name) {
  const int process = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (process < 0) return std::nullopt;
  std::optional<int> value;
  std::error_code error;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error)) {
    const int number = std::atoi(entry.path().filename().c_str());
    const int fd = static_cast<int>(::syscall(SYS_pidfd_getfd, process, number, 0));
    if (fd < 0) continue;
    sockaddr_in peer{};
    socklen_t size = sizeof(peer);
    int option = 0;
    socklen_t option_size = sizeof(option);
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
        peer.sin_family == AF_INET && ntohs(peer.sin_port) == client_port &&
        ::getsockopt(fd, IPPROTO_TCP, name, &option, &option_size) == 0) {
      value = option;
    }
    ::close(fd);
    if (value) break;
  }
  ::close(process);
  return value;
}

}  // namespace

uint16_t LocalPort(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

std::optional<int> ServiceSideTcpOption(pid_t service, uint16_t client_port, int name) {
  for (pid_t pid : WithChildren(service)) {
    if (std::optional<int> value = OptionIn(pid, client_port, name)) return value;
  }
  return std::nullopt;
}

}  // namespace pelmorad::testing

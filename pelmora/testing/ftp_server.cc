#include "pelmora/testing/ftp_server.h"

#include <unistd.h>

#include <filesystem>

#include "pelmora/testing/web_server.h"

namespace pelmora::testing {
namespace {

// Serves argv[1] as user argv[2] with password argv[3] on the listening socket argv[4].
constexpr const char* kServerScript = R"(
import logging, socket, sys
from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer
logging.basicConfig(level=logging.DEBUG)  # every command the client sends: "<- PORT ..."
authorizer = DummyAuthorizer()
authorizer.add_user(sys.argv[2], sys.argv[3], sys.argv[1], perm="elradfmwMT")
FTPHandler.authorizer = authorizer
FTPHandler.auth_failed_timeout = 0
listener = socket.socket(fileno=int(sys.argv[4]))
FTPServer(listener, FTPHandler).serve_forever()
)";

}  // namespace

FtpServer::FtpServer(std::string user, std::string password)
    : folder_(MakeScratchFolder("ftp")) {
  std::filesystem::create_directories(folder_ + "/root");
  int fd = ListenOnFreeLoopbackPort(port_);
  std::string root = folder_ + "/root";
  std::string fd_text = std::to_string(fd);
  const char* argv[] = {"/usr/bin/python3", "-c", kServerScript, root.c_str(), user.c_str(),
                        password.c_str(), fd_text.c_str(), nullptr};
  try {
    pid_ = SpawnWithLog(argv, "", folder_ + "/server.log");
  } catch (...) {
    ::close(fd);
    throw;
  }
  ::close(fd);
}

FtpServer::~FtpServer() {
  StopProcess(pid_);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::string FtpServer::Url(std::string_view user, std::string_view password,
                           std::string_view path) const {
  std::string credentials;
  if (!user.empty()) credentials = std::string(user) + ":" + std::string(password) + "@";
  return "ftp://" + credentials + "127.0.0.1:" + std::to_string(port_) + std::string(path);
}

std::string FtpServer::WriteFile(std::string_view name, std::string_view bytes) const {
  return WriteFileUnder(folder_ + "/root", name, bytes);
}

std::string FtpServer::Log() const { return ReadWholeFile(folder_ + "/server.log"); }

}  // namespace pelmora::testing

#include "pelmora/testing/postgres_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace pelmora::testing {
namespace {

constexpr const char* kBin = "/usr/lib/postgresql/15/bin/";

// A loopback port that was free a moment ago (the kernel's choice for port 0).
int FreeLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

TempFolder::TempFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "pelmora-XXXXXX").string();
  if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

PostgresServer* PostgresServer::Shared() {
  // Destroyed (and so stopped) when the test program exits.
  static std::unique_ptr<PostgresServer> server(new PostgresServer());
  return server.get();
}

PostgresServer::PostgresServer() { running_ = Start(); }

PostgresServer::~PostgresServer() { Stop(); }

bool PostgresServer::RunAsPostgres(const std::string& command) {
  std::string log = folder_.Path("command.log");
  std::string line = "runuser -u postgres -- " + command + " >" + log + " 2>&1";
  if (std::system(line.c_str()) == 0) return true;
  failure_ = command + ": " + ReadFile(log);
  return false;
}

bool PostgresServer::Start() {
  const passwd* user = getpwnam("postgres");
  if (user == nullptr || folder_.Path().empty()) {
    failure_ = "no postgres user or no temporary folder";
    return false;
  }
  if (chown(folder_.Path().c_str(), user->pw_uid, user->pw_gid) != 0) {
    failure_ = "cannot give the temporary folder to postgres";
    return false;
  }
  port_ = FreeLoopbackPort();
  std::string data = folder_.Path("data");
  if (!RunAsPostgres(std::string(kBin) + "initdb -D " + data +
                     " -A trust -U postgres -E UTF8 --locale=C --no-sync")) {
    return false;
  }
  std::string options = "-p " + std::to_string(port_) + " -k " + folder_.Path() +
                        " -c listen_addresses=127.0.0.1 -c fsync=off";
  return RunAsPostgres(std::string(kBin) + "pg_ctl -D " + data + " -l " +
                       folder_.Path("server.log") + " -w -t 60 -o '" + options + "' start");
}

std::string PostgresServer::ConnectionString() const {
  return "Driver=PostgreSQL Unicode;Server=127.0.0.1;Port=" + std::to_string(port_) +
         ";Database=postgres;UID=postgres;PWD=;BoolsAsChar=0";
}

void PostgresServer::Stop() {
  if (!running_) return;
  running_ = false;
  RunAsPostgres(std::string(kBin) + "pg_ctl -D " + folder_.Path("data") +
                " -m fast -w -t 60 stop");
}

}  // namespace pelmora::testing

// A throw-away PostgreSQL server for database tests, and the temporary folder it lives in.
//
//   static PostgresServer* server = PostgresServer::Shared();   // started once per test program
//   if (!server->Running()) GTEST_SKIP() << server->Failure();
//   db.Connect(server->ConnectionString());
//
// The server runs initdb and pg_ctl from the PostgreSQL 15 programs as the "postgres" user (they
// refuse to run as root) on a free loopback port, with its data folder and Unix socket inside a
// temporary folder that user owns. Shared() registers a GoogleTest environment that stops the
// server and removes the folder at the end of the test program.
#ifndef PELMORA_TESTING_POSTGRES_SERVER_H_
#define PELMORA_TESTING_POSTGRES_SERVER_H_

#include <string>

namespace pelmora::testing {

// A new folder under the temporary folder, removed with everything in it when destroyed.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& Path() const { return path_; }
  // Path() + "/" + name.
  std::string Path(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

class PostgresServer {
 public:
  // The test program's one server, started on first use (blocks for initdb and the start, some
  // seconds). Never null; check Running().
  static PostgresServer* Shared();

  // True when the server started and accepts connections.
  bool Running() const { return running_; }
  // Why the server is not running (the failing command and its output).
  const std::string& Failure() const { return failure_; }
  // "Driver=PostgreSQL Unicode;Server=127.0.0.1;Port=N;...;BoolsAsChar=0" (Booleans as BIT)
  std::string ConnectionString() const;
  int Port() const { return port_; }

  // Stops the server (fast shutdown) and removes its folder. Harmless twice.
  void Stop();
  ~PostgresServer();

 private:
  PostgresServer();
  bool Start();
  bool RunAsPostgres(const std::string& command);

  TempFolder folder_;
  int port_ = 0;
  bool running_ = false;
  std::string failure_;
};

}  // namespace pelmora::testing

#endif  // PELMORA_TESTING_POSTGRES_SERVER_H_

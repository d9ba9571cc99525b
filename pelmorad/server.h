// The listener: accepts connections on every configured address, one session coroutine each,
// handles SIGTERM (stop accepting, let transfers finish for the grace period, kill command
// groups, exit) and SIGHUP (reload the configuration for new sessions).
//
//   Server server(options);
//   return server.Run();   // blocks until SIGTERM
#ifndef PELMORAD_SERVER_H_
#define PELMORAD_SERVER_H_

#include <asio/ip/tcp.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pelmorad {

// What the command line decides about running the service.
struct ServerOptions {
  std::string config_path;
  std::vector<std::string> listen;  // overrides the configured addresses when not empty
  std::string port_file;            // written with the first bound plain port, "" for none
  std::vector<std::string> listen_tls;  // overrides the configured TLS addresses when not empty
  std::string tls_port_file;            // written with the first bound TLS port, "" for none
};

// "127.0.0.1:8002", "[::1]:0" or "0.0.0.0:8002" as an endpoint; nullopt when malformed.
std::optional<asio::ip::tcp::endpoint> ParseListenAddress(const std::string& text);

// Checks that every address in `addresses` parses and names an address of this machine: each is
// bound once on port 0 and let go (so the port of a service that already runs does not matter).
// Throws pelmora::Error 87 naming the first address that fails. Blocks for the binds only.
void CheckListenAddresses(const std::vector<std::string>& addresses);

class Server {
 public:
  // Loads the configuration and opens the drives. Throws pelmora::Error (see LoadConfig,
  // DriveTable::Open), and 1 when the kernel cannot resolve names beneath a folder (openat2).
  explicit Server(ServerOptions options);
  ~Server();

  // Binds every address (throws pelmora::Error 10048 with the address when one cannot be bound;
  // no plain address with tls_only), writes the port files, serves until SIGTERM and returns
  // the exit status (0). Returns at most about a second after the grace period even when file
  // work is still blocked in the kernel;
  // Abandoned() then tells the caller to end the process without destroying the server.
  int Run();

  // True when Run returned with file work still blocked on a pool thread.
  bool Abandoned() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace pelmorad

#endif  // PELMORAD_SERVER_H_

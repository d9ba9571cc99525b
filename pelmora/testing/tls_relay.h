// A TLS-terminating relay for tests: it accepts connections on a free loopback port, runs the
// server side of a TLS handshake with a given certificate (or none: a plain relay), and forwards
// the bytes both ways to a plain TCP port on 127.0.0.1. It records every byte the clients sent
// after decryption, so a test can prove what reached it, and counts the handshakes that failed.
//
//   TlsRelay relay(folder + "/valid.pem", service.port());
//   fso.Connect("127.0.0.1", relay.port(), ...);
#ifndef PELMORA_TESTING_TLS_RELAY_H_
#define PELMORA_TESTING_TLS_RELAY_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace pelmora::testing {

class TlsRelay {
 public:
  // `pem` holds the certificate and its key ("" relays plain bytes); `target_port` is the plain
  // port forwarded to. Throws std::runtime_error when the relay cannot start.
  TlsRelay(std::string pem, uint16_t target_port);
  // Ends every connection and joins the relay's threads.
  ~TlsRelay();
  TlsRelay(const TlsRelay&) = delete;
  TlsRelay& operator=(const TlsRelay&) = delete;

  uint16_t port() const { return port_; }
  // Every byte the clients sent, decrypted, in arrival order.
  std::string Received() const;
  // How many accepted connections failed their TLS handshake.
  int FailedHandshakes() const;
  // Waits (at most `milliseconds`) until `count` connections have ended; false on time-out.
  bool WaitForEndedConnections(int count, int milliseconds) const;

 private:
  void AcceptLoop();
  void Serve(int client);

  std::string pem_;
  uint16_t target_port_;
  uint16_t port_ = 0;
  int listener_ = -1;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::string received_;
  int failed_handshakes_ = 0;
  int ended_ = 0;
  bool stopping_ = false;
  std::vector<int> open_;
  std::vector<std::thread> workers_;
  std::thread acceptor_;
};

}  // namespace pelmora::testing

#endif  // PELMORA_TESTING_TLS_RELAY_H_

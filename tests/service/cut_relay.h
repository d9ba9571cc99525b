// A relay for tests of lost connections: it relays one connection to a loopback port and closes
// both ends once a given count of the far end's bytes has been passed on, as a connection lost
// in the middle of a download.
//
//   CutRelay relay(service.port(), 150000);
//   fso.Connect("127.0.0.1", relay.port(), ...);  // the download fails after 150000 bytes
#ifndef TESTS_SERVICE_CUT_RELAY_H_
#define TESTS_SERVICE_CUT_RELAY_H_

#include <cstddef>
#include <thread>

namespace pelmorad::testing {

class CutRelay {
 public:
  // Listens on a free loopback port for one connection to relay to `port`.
  CutRelay(int port, std::size_t limit);
  // Stops listening and joins the relay's thread (every wait of it is bounded: 20 s of silence
  // ends the relay).
  ~CutRelay();
  CutRelay(const CutRelay&) = delete;
  CutRelay& operator=(const CutRelay&) = delete;

  int port() const { return port_; }

 private:
  void Relay(int port, std::size_t limit);

  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
};

}  // namespace pelmorad::testing

#endif  // TESTS_SERVICE_CUT_RELAY_H_

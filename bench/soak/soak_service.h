// The soak's pelmorad: started in a scratch folder with a fast-hash account that may run
// commands and limits wide enough for the sessions and the wrong passwords; stopped with SIGTERM
// (or killed when the soak ends first).
//
//   pelmora_soak::Service service(pelmora_soak::DefaultService(), folder, 1000);
//   client.Connect("127.0.0.1", service.port(), pelmora_soak::kAccount, ...);
#ifndef BENCH_SOAK_SOAK_SERVICE_H_
#define BENCH_SOAK_SOAK_SERVICE_H_

#include <sys/types.h>

#include <string>

namespace pelmora_soak {

inline constexpr char kAccount[] = "soak";
inline constexpr char kPassword[] = "soak password";

// The service binary: $PELMORAD_BINARY, else pelmorad/pelmorad of the build tree the soak is in.
std::string DefaultService();

class Service {
 public:
  // Writes the configuration under `folder`, starts `binary` on a free loopback port and waits
  // up to 20 s for it to name the port (port() is 0 when it did not).
  Service(const std::string& binary, const std::string& folder, int sessions);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // SIGTERM and the exit status (128 + n when killed by signal n).
  int Stop();
  pid_t pid() const { return pid_; }
  int port() const { return port_; }
  std::string Drive(const std::string& relative) const { return folder_ + "/c/" + relative; }

 private:
  std::string folder_;
  pid_t pid_ = -1;
  int port_ = 0;
};

}  // namespace pelmora_soak

#endif  // BENCH_SOAK_SOAK_SERVICE_H_

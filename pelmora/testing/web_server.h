// A real web server (nginx) on loopback for the internet object's tests.
//
// The fixture makes a scratch folder with a document root, a test certificate authority and one
// server certificate per case (valid, expired, not yet valid, issued for another host name,
// self-signed), writes an nginx configuration for one plain HTTP port and one TLS port per
// certificate, and starts nginx on listening sockets it has already bound to free loopback
// ports, so clients can connect at once (the kernel queues them until nginx accepts).
//
//   WebServer web;                                  // starts nginx; stops it when destroyed
//   web.WriteDocument("a.txt", "hello");
//   inet.OpenURL(web.HttpUrl("/a.txt"));            // "hello"
//   setenv("SSL_CERT_FILE", web.CaFile().c_str(), 1);
//   inet.OpenURL(web.TlsUrl(WebServer::Cert::kExpired, "/a.txt"));   // raises 12037
//
// Fixed locations: /echo-headers (the request's agent, accept, connection and cookie headers),
// /set-cookie (sets "session=abc123"), /redirect (302 to /small.txt), /redirect-loop, /dup (two
// X-Dup headers), /chunked/<file> (the file with chunked transfer coding), /post (200 "posted"
// for any verb), /echo-request (the request's verb, X-Test header and Content-Length), and WebDAV
// PUT anywhere else. Throws std::runtime_error when nginx cannot start.
#ifndef PELMORA_TESTING_WEB_SERVER_H_
#define PELMORA_TESTING_WEB_SERVER_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace pelmora::testing {

class WebServer {
 public:
  enum class Cert { kValid, kExpired, kNotYetValid, kWrongHost, kSelfSigned };
  static constexpr int kCertCount = 5;
  // Where the plain HTTP port lies: below 32768 (the object's 16-bit port takes it) or above.
  enum class HttpPortRange { kBelow32768, kAbove32767 };

  explicit WebServer(HttpPortRange range = HttpPortRange::kBelow32768);
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  uint16_t HttpPort() const { return http_port_; }
  uint16_t TlsPort(Cert cert) const { return tls_ports_[static_cast<int>(cert)]; }
  // "http://127.0.0.1:<port><path>" and the same for the TLS port of `cert`.
  std::string HttpUrl(std::string_view path) const;
  std::string TlsUrl(Cert cert, std::string_view path) const;

  // The test authority's certificate (PEM), to be trusted through SSL_CERT_FILE.
  std::string CaFile() const { return folder_ + "/ca.pem"; }
  // The document root and a file written into it (folders created as needed).
  std::string DocumentRoot() const { return folder_ + "/www"; }
  std::string WriteDocument(std::string_view name, std::string_view bytes) const;
  // The server's error log (for failure messages).
  std::string ErrorLog() const;

 private:
  void MakeCertificates() const;
  void WriteConfig() const;
  void Launch(const int* fds, int count);

  std::string folder_;
  uint16_t http_port_ = 0;
  uint16_t tls_ports_[kCertCount] = {};
  pid_t pid_ = -1;
};

// A listening TCP socket on 127.0.0.1 at a free port below 32768, inheritable by a child process.
// Returns the descriptor and stores the port; throws std::runtime_error on failure.
int ListenOnFreeLoopbackPort(uint16_t& port);
// The same at a free port above 32767.
int ListenOnHighLoopbackPort(uint16_t& port);

// Writes a test authority (ca.pem) and its server certificates into `folder`, each with its key
// in one PEM file: valid.pem, expired.pem, future.pem, wrong-host.pem (issued to other.example)
// and self-signed.pem; all but the last are issued to localhost and 127.0.0.1 by the authority.
// Throws std::runtime_error on failure.
void WriteTestCertificates(const std::string& folder);

// The fingerprint ("SHA256:" and base64, as the TLS client gives it) of the first certificate in
// the PEM file `path`; "" when the file holds none.
std::string PemCertificateFingerprint(const std::string& path);

// A fresh scratch folder under the temporary folder, named after `purpose`.
std::string MakeScratchFolder(std::string_view purpose);

// Starts `argv[0]` with the environment plus `extra_env` (may be empty), standard output and
// error appended to `log_file`; returns the process id. Throws std::runtime_error on failure.
pid_t SpawnWithLog(const char* const* argv, const std::string& extra_env,
                   const std::string& log_file);

// Writes `bytes` to `root`/`name`, making folders as needed; returns the file's path.
std::string WriteFileUnder(const std::string& root, std::string_view name, std::string_view bytes);

// The whole contents of a file ("" when it cannot be read).
std::string ReadWholeFile(const std::string& path);

// Stops a process started by SpawnWithLog (SIGTERM, then waits for it).
void StopProcess(pid_t pid);

}  // namespace pelmora::testing

#endif  // PELMORA_TESTING_WEB_SERVER_H_

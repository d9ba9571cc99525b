// AdminClient: the public facade of the administration service.
//
// An AdminClient owns one RCFSO. It connects to a host's administration service with the
// library's built-in service account and offers three services: the server's clock, the
// application's root folder on the server, and running a command line there with its output
// returned as one string. Failures never escape as exceptions (apart from RemoteAppRootPath's two
// raised errors); they leave a number and a text, prefixed with the failing member's name, in
// ErrNumber/ErrDescription.
//
//   pelmora::admin::AdminClient client;
//   client.SetProduct("qel");
//   if (client.Connect("server")) {
//     std::string out;
//     int32_t exit_code = 0;
//     if (client.RemoteCommandCall("ipconfig", 5000, access_code, out, exit_code)) std::cout <<
//     out; std::string root = client.RemoteAppRootPath();   // e.g. "C:\\Qel"
//   }
//
// One object is used by one thread at a time; every call blocks on the caller's thread.
#ifndef PELMORA_ADMIN_ADMIN_CLIENT_H_
#define PELMORA_ADMIN_ADMIN_CLIENT_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/common/date.h"
#include "pelmora/platform/export.h"

namespace pelmora::admin {

class PELMORA_API AdminClient {
 public:
  // Creates the RCFSO, sets the thread's log level to 1, the log folder to the library's folder
  // followed by "/../Log/" and the session time-out to 10000 ms. Never fails.
  AdminClient();
  // Disconnects and releases the RCFSO.
  ~AdminClient();
  AdminClient(const AdminClient&) = delete;
  AdminClient& operator=(const AdminClient&) = delete;

  // The last error: 0 and "" after creation and after a member that succeeded.
  int32_t ErrNumber() const { return err_number_; }
  const std::string& ErrDescription() const { return err_description_; }

  // The calling application's product code ("qel" or "vorin", any case); "" after creation.
  const std::string& Product() const { return product_; }
  void SetProduct(std::string value) { product_ = std::move(value); }

  // The administration service's port; 8002 unless changed (for services on another port).
  int32_t ServicePort() const { return service_port_; }
  void SetServicePort(int32_t value) { service_port_ = value; }

  // The transport of the next Connect, kept by the owned RCFSO (plain unless `enabled`; see
  // RCFSO::set_tls). Late-bound callers reach the fields by the same names as on RCFSO.
  const TlsClientSettings& tls() const { return fso_.tls(); }
  void set_tls(TlsClientSettings value) { fso_.set_tls(std::move(value)); }

  // Connects to `Host` and logs in with the built-in service account. False with the RCFSO's
  // error (socket number, or the refusal's code and message) on failure. Blocks for the connect
  // and the login answer (at most the session time-out).
  bool Connect(std::string_view Host);

  // The server's local clock; the empty date, with the RCFSO's error recorded, on failure.
  Date RemoteSystemTime();

  // Runs `sCommandLine` on the server when `sPassword` is the built-in access code; otherwise
  // returns false at once, sending nothing and recording nothing. The session time-out is
  // `lTimeout` + 1000 ms while the command runs and is restored afterwards on every path. On a
  // normal end `sStdout` receives the collected output and the result is true; on any failure
  // (9001-9003, 10060, 8117...) the error is recorded and `sStdout` is untouched. `lTimeout`
  // within 1000 of the largest 32-bit value records 6 "Overflow". `lExitCode` is never written.
  bool RemoteCommandCall(std::string_view sCommandLine, int32_t lTimeout,
                         std::string_view sPassword, std::string& sStdout, int32_t& lExitCode);

  // The application's root folder on the server: the path registered under "QelProgram" or
  // "VorProgram" (by Product), two levels up, normalised as a server path. Raises pelmora::Error
  // 9000 "Invalid product code:<Product>" for another product (nothing sent) and 76
  // "Path not found" (source "RemoteAppRootPath") when the server gives no path.
  std::string RemoteAppRootPath();

  // C++ only: the owned remote file-system client.
  RCFSO& FileSystemClient() { return fso_; }

 private:
  class OutputCollector : public RCFSOEvents {
   public:
    explicit OutputCollector(std::string& output) : output_(output) {}
    void CommandOutput(std::string& text) override { output_ += text; }

   private:
    std::string& output_;
  };

  void ClearError();
  void SetError(int32_t number, std::string_view description, std::string_view source);
  void RecordClientError(std::string_view source);

  int32_t err_number_ = 0;
  std::string err_description_;
  std::string product_;
  RCFSO fso_;
  std::string command_output_;
  OutputCollector collector_{command_output_};
  int32_t service_port_ = kServicePort;
};

}  // namespace pelmora::admin

#endif  // PELMORA_ADMIN_ADMIN_CLIENT_H_

// WinINet: HTTP, HTTPS and FTP transfers with a blocking, synchronous programming model.
//
// One object keeps one internet session (cookies, kept-alive connections) and the parts of the
// current URL. Execute sends an HTTP or HTTPS request with an optional body, UploadFile posts a
// file or a stretch of it, OpenURL fetches a URL of any supported scheme in one call; GetHeader,
// GetResponse and GetChunk then read the open response, and Cancel drops it.
//
//   pelmora::WinINet inet;
//   inet.Execute("http://127.0.0.1:8080/report", "POST", body, "Content-Type: text/plain");
//   std::string type = inet.GetHeader("Content-Type");
//   while (true) {
//     pelmora::Variant piece = inet.GetChunk(65536, pelmora::icByteArray);  // waits for data
//     if (piece.ToBytes().empty()) break;
//   }
//   pelmora::Variant page = inet.OpenURL("https://example.test/");          // the whole body
//
// Every member raises pelmora::Error on failure (number and description, empty source):
// 380 "Invalid property value" for a bad property value, 35752, 35755, 35760 and 35763 for the
// object's own refusals, 5 and 6 for bad arguments, the Win32 numbers of file failures and the
// WinInet numbers 12001-12175 for transfer failures (12002 when no data arrives within
// ReceiveTimeout, 12037/12038/12045 for refused certificates, 12015 for a refused FTP login...),
// each with its system text. Every wait happens on the calling thread and is bounded by the
// receive time-out. One object is used by one thread at a time.
#ifndef PELMORA_NET_WININET_H_
#define PELMORA_NET_WININET_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelmora/common/variant.h"
#include "pelmora/platform/export.h"

namespace pelmora {

namespace net_internal {
class CurlSession;
class CurlTransfer;
struct TransferRequest;
}  // namespace net_internal

// How the session reaches the network.
enum AccessTypeConstants : int32_t {
  icUseDefault = 0,  // the system's proxy settings (the http_proxy/https_proxy/no_proxy variables)
  icDirect = 1,      // straight to the server
  icNamedProxy = 2,  // through the Proxy property's server
};

// The protocol of the current URL.
enum ProtocolTypeConstants : int32_t {
  icFTP = 2,
  icGopher = 3,
  icHTTP = 4,
  icHTTPS = 5,
};

// The form of a result: text in the ANSI code page (converted to UTF-8) or the bytes.
enum InetDataTypeConstants : int32_t {
  icString = 0,
  icByteArray = 1,
};

// The scheme numbers a cracked URL reports.
enum InetSchemes : int32_t {
  InternetSchemePartial = -2,
  InternetSchemeUnknown = -1,
  InternetSchemeDefault = 0,
  InternetSchemeFtp = 1,
  InternetSchemeGopher = 2,
  InternetSchemeHttp = 3,
  InternetSchemeHttps = 4,
  InternetSchemeFile = 5,
  InternetSchemeNews = 6,
  InternetSchemeMailto = 7,
  InternetSchemeSocks = 8,
  InternetSchemeFirst = 1,
  InternetSchemeLast = 8,
};

// The object's events. Both are raised synchronously on the caller's thread.
class PELMORA_API WinINetEvents {
 public:
  virtual ~WinINetEvents() = default;
  // Declared for uploads; never raised.
  virtual void Uploading(int32_t Size) {}
  // Raised by GetResponse (and OpenURL) after each read with the running total of bytes
  // received. A handler may call Cancel on the object to stop the transfer after this read.
  virtual void Receiving(int32_t Size) {}
};

// The user agent every request names.
inline constexpr std::string_view kInetAgent = "Corvanta Inet Agent";

class PELMORA_API WinINet {
 public:
  // An object with the default settings and no session yet.
  WinINet();
  // Cancels the open request and closes the session.
  ~WinINet();
  WinINet(const WinINet&) = delete;
  WinINet& operator=(const WinINet&) = delete;

  // Connects the receiver of the object's events (null disconnects); not owned.
  void SetEventSink(WinINetEvents* sink) { events_ = sink; }

  // The session's handle number: 0 until the first operation has opened the session.
  int32_t hInternet() const;

  // Buffer size for uploads and whole-response reads (default 512000). Below 1 raises 380.
  int32_t ChunkSize() const { return chunk_size_; }
  void SetChunkSize(int32_t value);

  // How the session reaches the network; read when the session opens (the first operation).
  int32_t AccessType() const { return access_type_; }
  void SetAccessType(int32_t value) { access_type_ = value; }

  // Proxy list for icNamedProxy: "host:port", or "http=host:port https=host:port".
  const std::string& Proxy() const { return proxy_; }
  void SetProxy(std::string value) { proxy_ = std::move(value); }

  const std::string& RemoteHost() const { return remote_host_; }
  void SetRemoteHost(std::string value) { remote_host_ = std::move(value); }

  // The port as a 16-bit number; raises 6 "Overflow" when the stored port is above 32767
  // (a URL may store up to 65535).
  int16_t RemotePort() const;
  void SetRemotePort(int16_t value) { remote_port_ = value; }

  // Milliseconds a transfer waits for data before failing with 12002 (default 30000; 0 waits
  // without limit). Below 0 raises 380. Applied again before every operation.
  int32_t ReceiveTimeout() const { return receive_timeout_; }
  void SetReceiveTimeout(int32_t value);

  // HTTPS: accept a certificate that has expired or is not yet valid (nothing else).
  bool IgnoreCertDate() const { return ignore_cert_date_; }
  void SetIgnoreCertDate(bool value) { ignore_cert_date_ = value; }
  // HTTPS: accept a certificate whose host name does not match (nothing else).
  bool IgnoreCertCommonName() const { return ignore_cert_name_; }
  void SetIgnoreCertCommonName(bool value) { ignore_cert_name_ = value; }
  // HTTPS, C++ only (no late-bound property): trust the certificates of this PEM file instead
  // of the system's store; "" (the default) for the system's.
  const std::string& CaFile() const { return ca_file_; }
  void SetCaFile(std::string path) { ca_file_ = std::move(path); }
  // HTTPS, C++ only: accept any certificate, unchecked (authority, dates and host name); the
  // connection stays encrypted but the server is not authenticated. Default false.
  bool NoCertCheck() const { return no_cert_check_; }
  void SetNoCertCheck(bool value) { no_cert_check_ = value; }
  // C++ only: Execute and UploadFile accept any port up to 65535 instead of raising 6 above
  // 32767; RemotePort still reads as the 16-bit property. Default false.
  bool FullPortRange() const { return full_port_range_; }
  void SetFullPortRange(bool value) { full_port_range_ = value; }
  // HTTP, HTTPS: neither send nor store cookies.
  bool NoCookies() const { return no_cookies_; }
  void SetNoCookies(bool value) { no_cookies_ = value; }
  // HTTP, HTTPS: no user interface during requests (there never is any; kept for callers).
  bool NoCookiesDialog() const { return no_cookies_dialog_; }
  void SetNoCookiesDialog(bool value) { no_cookies_dialog_ = value; }

  // The protocol (ProtocolTypeConstants). Setting 2-5 also sets the scheme and the default
  // port; any other value raises 380 and changes nothing.
  int32_t protocol() const { return protocol_; }
  void SetProtocol(int32_t value);

  // Path and extra information (query, fragment) of the current URL.
  const std::string& Document() const { return document_; }
  void SetDocument(std::string value) { document_ = std::move(value); }

  // The URL composed from its parts: scheme://[user:password@]host[:port][/document].
  std::string URL() const;
  // Parses `value` into the parts (a missing scheme takes the protocol's). Raises 35752 "URL is
  // malformed" for file, mailto, news and the other non-transfer schemes, 12006 for text that
  // is not a URL, 122 for a URL over 1023 characters; the parts stay as they were on failure.
  void SetURL(std::string_view value);

  // The service number of the protocol: 1 FTP, 2 Gopher, 3 HTTP and HTTPS.
  int32_t ServiceType() const { return service_type_; }

  // Posts the file `FileName` from byte `Start` (the whole rest when `Length` is 0, else at most
  // `Length` bytes) to `URL` (or the current URL). Returns the count of bytes read from the file
  // in ChunkSize pieces, which may exceed the length sent. Raises 35755 without a host or for
  // FTP and Gopher, 5 for a negative Start or Length or a Start beyond the end, 6 for a port
  // above 32767, the Win32 number when the file cannot be opened, WinInet numbers for the
  // transfer. Blocks until the response headers arrive.
  int32_t UploadFile(const std::string& FileName, int32_t Start = 0, int32_t Length = 0,
                     const std::string& URL = "", const std::string& InputHdrs = "");

  // Sends an HTTP or HTTPS request: `Operation` is the verb (upper-cased; empty is GET),
  // `InputData` the body (Empty, a String sent in the ANSI code page, or a Byte()), `InputHdrs`
  // header lines separated by CR LF (in the ANSI code page), each added or replacing the header
  // of the same name, so every name goes out once. For verbs other than PUT and POST the caller's
  // InputData becomes an empty String (the body is still sent). Raises 35755 without a host or for
  // FTP and Gopher, 35760 "Cannot coerce type" for another InputData type, 6 for a port above
  // 32767, WinInet numbers for the transfer. Blocks until the response headers arrive.
  void Execute(const std::string& URL, const std::string& Operation, Variant& InputData,
               const std::string& InputHdrs = "");
  // Execute without a body.
  void Execute(const std::string& URL = "", const std::string& Operation = "");

  // Fetches `URL` (or the current URL) of any scheme (HTTP, HTTPS, FTP in active mode,
  // Gopher) and returns the whole body as GetResponse does. Raises 35755 without a host and
  // WinInet numbers for the transfer.
  Variant OpenURL(const std::string& URL = "", int32_t DataType = icString);

  // Closes the open request; the session stays. Safe inside a Receiving handler.
  void Cancel();

  // Reads the rest of the response in ChunkSize pieces, raising Receiving after each. Returns a
  // Byte() for icByteArray, otherwise a String (Empty when there was no byte); without an open
  // request, the same empty results. Raises WinInet numbers (12002 when data stops arriving).
  Variant GetResponse(int32_t DataType = icString);

  // Reads up to `Size` bytes of the response (fewer only at its end); an empty result is the
  // end. Raises 35763 "Invalid operation argument" for a Size below 1, WinInet numbers for the
  // transfer.
  Variant GetChunk(int32_t Size, int32_t DataType = icString);

  // C++ only: hands the rest of the response to `sink` piece by piece as it arrives, straight
  // from the receive buffer (no copy and no allocation of its own), until the response ends
  // (returns true) or `sink` returns false (the request is cancelled; returns false). Raises
  // WinInet numbers as GetChunk does; Receiving is not raised.
  using PieceSink = std::function<bool(const uint8_t* data, size_t size)>;
  bool ReadResponseTo(const PieceSink& sink);

  // The first value of the response header `HdrName` ("" when absent), or with an empty name
  // all header lines (status line first, each ended by CR LF, then an empty line). "" without
  // an open request. Raises 12018 on an FTP or Gopher response.
  std::string GetHeader(const std::string& HdrName = "");

 private:
  void OpenSession();
  void CheckPort16() const;
  void RequireHost() const;
  void RequireHttp() const;
  net_internal::TransferRequest RequestFromParts() const;
  void Apply(net_internal::TransferRequest& request) const;
  void StartRequest(net_internal::TransferRequest request);
  void ReadInto(std::vector<uint8_t>& data, size_t size);

  std::unique_ptr<net_internal::CurlSession> session_;
  std::unique_ptr<net_internal::CurlTransfer> transfer_;
  WinINetEvents* events_ = nullptr;
  std::string scheme_ = "http";
  std::string remote_host_;
  int32_t remote_port_ = 80;
  std::string document_;
  std::string user_;
  std::string password_;
  int32_t access_type_ = icUseDefault;
  int32_t protocol_ = icHTTP;
  int32_t service_type_ = 3;
  int32_t receive_timeout_ = 30000;
  int32_t chunk_size_ = 512000;
  std::string proxy_;
  bool ignore_cert_date_ = false;
  bool ignore_cert_name_ = false;
  std::string ca_file_;
  bool no_cert_check_ = false;
  bool full_port_range_ = false;
  bool no_cookies_ = false;
  bool no_cookies_dialog_ = true;
};

}  // namespace pelmora

#endif  // PELMORA_NET_WININET_H_

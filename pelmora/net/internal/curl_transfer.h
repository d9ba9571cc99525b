// One request of the internet object, driven over libcurl on the caller's thread.
//
// The easy handle runs inside its own multi handle. Start sends the request and pumps until the
// response headers are complete (HTTP), the first byte of data arrives (FTP, Gopher) or the
// transfer ends. Read then appends the response to the caller's vector in caller-sized pieces:
// bytes go straight to the caller while a read waits, and otherwise into a small staging buffer
// (no zero-filling of the caller's memory, one copy per byte); once that holds
// kStagingLimit bytes the transfer is paused until the caller reads again, so memory stays
// bounded whatever the size of the response. Every wait for data is bounded by the idle time-out:
// when nothing arrives (and nothing is sent) for that long, the call fails with 12002.
//
//   CurlTransfer t(session, request);
//   if (int32_t e = t.Start()) throw ...;        // WinInet number
//   std::vector<uint8_t> body; size_t got = 0;
//   while (t.Read(body, 4096, got) == 0 && got > 0) { ... }
#ifndef PELMORA_NET_INTERNAL_CURL_TRANSFER_H_
#define PELMORA_NET_INTERNAL_CURL_TRANSFER_H_

#include <curl/curl.h>
#include <openssl/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "pelmora/net/internal/curl_errors.h"
#include "pelmora/net/internal/curl_session.h"
#include "pelmora/net/internal/http_headers.h"

namespace pelmora::net_internal {

// A stretch of an open file sent as the request body.
struct UploadSource {
  int fd = -1;
  int64_t offset = 0;
  int64_t length = 0;
};

// Everything one request needs; the URL parts are the object's cracked ones.
struct TransferRequest {
  int32_t scheme = 3;  // cracked scheme number: 1 FTP, 2 Gopher, 3 HTTP, 4 HTTPS
  std::string host;
  int32_t port = 0;    // 0: the scheme's default
  std::string user;
  std::string password;
  std::string document;              // path and extra information
  std::string verb;                  // empty: GET
  std::vector<uint8_t> body;         // sent when not empty (or for POST and PUT)
  UploadSource upload{};             // a file stretch instead of `body` when fd >= 0
  std::string headers;               // the caller's header lines, separated by CR LF
  bool ignore_cert_date = false;
  bool ignore_cert_name = false;
  std::string ca_file;               // trusted certificates instead of the system's; "": system's
  bool no_cert_check = false;        // accept any certificate
  bool cookies = true;
  int32_t idle_timeout_ms = 30000;   // 0: no limit
  bool ftp_passive = false;          // FTP data connections: PASV instead of PORT (or EPRT)
};

class CurlTransfer {
 public:
  // The staging buffer's high-water mark.
  static constexpr size_t kStagingLimit = 64 * 1024;

  // Prepares the request; nothing is sent yet. Raises 12004 when libcurl refuses a handle.
  CurlTransfer(const CurlSession& session, TransferRequest request);
  ~CurlTransfer();
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;

  // Sends the request and waits for the response headers. Returns 0 or the WinInet number.
  int32_t Start();

  // Appends up to `size` bytes to `out`, waiting until that many arrived or the response ended;
  // `got` 0 with the result 0 is the end. Returns 0 or the WinInet number (after every byte that
  // arrived before the failure has been read). Reserve room in `out` first to avoid regrowth.
  int32_t Read(std::vector<uint8_t>& out, size_t size, size_t& got);

  // Hands the rest of the response to `sink` as it arrives, straight from libcurl's buffer, until
  // it ends or `sink` returns false (`stopped`; the transfer is left paused and must be dropped).
  // Returns 0 or the WinInet number, as Read.
  using PieceSink = std::function<bool(const uint8_t* data, size_t size)>;
  int32_t Stream(const PieceSink& sink, bool& stopped);

  // The final response's header block (empty for FTP and Gopher).
  const ResponseHeaders& Headers() const { return headers_; }

  // Whether the request is HTTP or HTTPS.
  bool IsHttp() const { return request_.scheme == 3 || request_.scheme == 4; }

 private:
  using Clock = std::chrono::steady_clock;
  static size_t OnWrite(char* data, size_t size, size_t count, void* self);
  static size_t OnHeader(char* data, size_t size, size_t count, void* self);
  static size_t OnRead(char* data, size_t size, size_t count, void* self);
  static CURLcode OnSslContext(CURL* easy, void* ssl_ctx, void* self);
  static int OnVerify(int preverify_ok, ::x509_store_ctx_st* store);

  void Configure(const CurlSession& session);
  void ConfigureTls();
  void ConfigureBody();
  void ConfigureFtp();
  std::string Url() const;
  template <class Done>
  int32_t Pump(Done done);
  void CollectMessages();
  int32_t FailureNumber() const;
  void TakeStaged();
  void Deliver(const uint8_t* data, size_t count);

  TransferRequest request_;
  CURL* easy_ = nullptr;
  CURLM* multi_ = nullptr;
  curl_slist* header_list_ = nullptr;
  bool added_ = false;
  ResponseHeaders headers_;
  bool headers_done_ = false;
  bool body_started_ = false;
  bool finished_ = false;
  bool paused_ = false;
  bool active_ = false;
  CURLcode result_ = CURLE_OK;
  int x509_error_ = 0;
  int32_t pending_error_ = 0;
  std::vector<uint8_t> staged_;
  size_t staged_pos_ = 0;
  std::vector<uint8_t>* sink_ = nullptr;  // the waiting read's vector
  size_t sink_room_ = 0;                  // how much more it takes
  const PieceSink* stream_ = nullptr;     // Stream's receiver, while it pumps
  bool stream_stopped_ = false;           // the receiver refused a piece
  int64_t upload_sent_ = 0;
};

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_CURL_TRANSFER_H_

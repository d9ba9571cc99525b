#include "pelmora/net/internal/curl_transfer.h"

#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/net/internal/url_cracker.h"

namespace pelmora::net_internal {
namespace {

constexpr long kMaxRedirects = 30;
// libcurl's receive buffer: larger reads than its 16 KiB default, as the curl program uses.
constexpr long kReceiveBuffer = 512 * 1024;

// The SSL_CTX slot that leads the verify callback back to its transfer.
int TransferSlot() {
  static const int slot = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return slot;
}

const char* SchemeName(int32_t scheme) {
  switch (scheme) {
    case kSchemeFtp: return "ftp";
    case kSchemeGopher: return "gopher";
    case kSchemeHttps: return "https";
    default: return "http";
  }
}

int32_t DefaultPortOf(int32_t scheme) {
  switch (scheme) {
    case kSchemeFtp: return 21;
    case kSchemeGopher: return 70;
    case kSchemeHttps: return 443;
    default: return 80;
  }
}

// Whether a finished header block is the final response (not an interim reply or a redirect
// that is about to be followed).
bool IsFinalResponse(const ResponseHeaders& headers) {
  int32_t status = headers.Status();
  if (status < 200) return false;
  bool redirect = status / 100 == 3 && status != 304 && headers.Find("Location").has_value();
  return !redirect;
}

curl_slist* HeaderList(const std::string& caller_lines) {
  // No Accept, Expect or made-up Content-Type of libcurl's own; keep the connection open.
  std::vector<std::string> lines = {
      "Accept:", "Expect:", "Content-Type:", "Connection: Keep-Alive"};
  AddOrReplaceHeaders(lines, caller_lines);
  curl_slist* list = nullptr;
  for (const std::string& line : lines) list = curl_slist_append(list, line.c_str());
  return list;
}

}  // namespace

CurlTransfer::CurlTransfer(const CurlSession& session, TransferRequest request)
    : request_(std::move(request)) {
  easy_ = curl_easy_init();
  multi_ = curl_multi_init();
  if (easy_ == nullptr || multi_ == nullptr) {
    if (easy_ != nullptr) curl_easy_cleanup(easy_);
    if (multi_ != nullptr) curl_multi_cleanup(multi_);
    if (request_.upload.fd >= 0) ::close(request_.upload.fd);
    throw Error(kInternetInternalError, DescribeError(kInternetInternalError));
  }
  Configure(session);
}

CurlTransfer::~CurlTransfer() {
  if (added_) curl_multi_remove_handle(multi_, easy_);
  curl_easy_cleanup(easy_);
  curl_multi_cleanup(multi_);
  curl_slist_free_all(header_list_);
  if (request_.upload.fd >= 0) ::close(request_.upload.fd);
}

std::string CurlTransfer::Url() const {
  int32_t port = request_.port != 0 ? request_.port : DefaultPortOf(request_.scheme);
  return std::string(SchemeName(request_.scheme)) + "://" + request_.host + ":" +
         std::to_string(port) + WireDocument(request_.document);
}

void CurlTransfer::Configure(const CurlSession& session) {
  curl_easy_setopt(easy_, CURLOPT_URL, Url().c_str());
  curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy_, CURLOPT_PROTOCOLS_STR, "http,https,ftp,gopher");
  curl_easy_setopt(easy_, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy_, CURLOPT_MAXREDIRS, kMaxRedirects);
  curl_easy_setopt(easy_, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(easy_, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(easy_, CURLOPT_BUFFERSIZE, kReceiveBuffer);
  curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &CurlTransfer::OnWrite);
  curl_easy_setopt(easy_, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy_, CURLOPT_HEADERFUNCTION, &CurlTransfer::OnHeader);
  curl_easy_setopt(easy_, CURLOPT_HEADERDATA, this);
  session.Apply(easy_, request_.cookies, SchemeName(request_.scheme));
  if (!request_.user.empty() || !request_.password.empty()) {
    curl_easy_setopt(easy_, CURLOPT_USERNAME, request_.user.c_str());
    curl_easy_setopt(easy_, CURLOPT_PASSWORD, request_.password.c_str());
    if (IsHttp()) curl_easy_setopt(easy_, CURLOPT_HTTPAUTH, CURLAUTH_ANY);
  }
  if (request_.scheme == kSchemeHttps) ConfigureTls();
  if (request_.scheme == kSchemeFtp) ConfigureFtp();
  if (IsHttp()) {
    header_list_ = HeaderList(request_.headers);
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, header_list_);
    ConfigureBody();
  }
}

void CurlTransfer::ConfigureTls() {
  curl_easy_setopt(easy_, CURLOPT_SSL_CTX_FUNCTION, &CurlTransfer::OnSslContext);
  curl_easy_setopt(easy_, CURLOPT_SSL_CTX_DATA, this);
  if (request_.ignore_cert_name) curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYHOST, 0L);
  // A connection or TLS session verified while dates were ignored must not serve a request
  // that checks them: a differing TLS option keeps the two apart in libcurl's caches.
  if (request_.ignore_cert_date) {
    curl_easy_setopt(easy_, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_ALLOW_BEAST));
  }
  // The system's trust store, as OpenSSL's environment overrides name it.
  if (const char* file = std::getenv("SSL_CERT_FILE"); file != nullptr && *file != '\0') {
    curl_easy_setopt(easy_, CURLOPT_CAINFO, file);
  }
  if (const char* dir = std::getenv("SSL_CERT_DIR"); dir != nullptr && *dir != '\0') {
    curl_easy_setopt(easy_, CURLOPT_CAPATH, dir);
  }
  if (!request_.ca_file.empty()) {
    curl_easy_setopt(easy_, CURLOPT_CAINFO, request_.ca_file.c_str());
  }
  if (request_.no_cert_check) {
    curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYHOST, 0L);
  }
}

// The platform's FTP default is active mode: the client listens on the control connection's
// address and announces it with PORT (EPRT over IPv6); passive mode asks with PASV.
void CurlTransfer::ConfigureFtp() {
  if (request_.ftp_passive) {
    curl_easy_setopt(easy_, CURLOPT_FTP_USE_EPSV, 0L);
    return;
  }
  curl_easy_setopt(easy_, CURLOPT_FTPPORT, "-");
  curl_easy_setopt(easy_, CURLOPT_FTP_USE_EPRT, 0L);
  if (request_.idle_timeout_ms > 0) {
    curl_easy_setopt(easy_, CURLOPT_ACCEPTTIMEOUT_MS, static_cast<long>(request_.idle_timeout_ms));
  }
}

void CurlTransfer::ConfigureBody() {
  std::string verb = request_.verb.empty() ? "GET" : request_.verb;
  const UploadSource& upload = request_.upload;
  if (upload.fd >= 0) {
    curl_easy_setopt(easy_, CURLOPT_POST, 1L);
    curl_easy_setopt(easy_, CURLOPT_READFUNCTION, &CurlTransfer::OnRead);
    curl_easy_setopt(easy_, CURLOPT_READDATA, this);
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(upload.length));
  } else if (verb == "HEAD") {
    curl_easy_setopt(easy_, CURLOPT_NOBODY, 1L);
    return;
  } else if (!request_.body.empty() || verb == "POST" || verb == "PUT") {
    static const char kNoBody[] = "";
    const void* data = request_.body.empty() ? kNoBody : static_cast<const void*>(request_.body.data());
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request_.body.size()));
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, data);
  } else {
    curl_easy_setopt(easy_, CURLOPT_HTTPGET, 1L);
    if (verb == "GET") return;
    curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, verb.c_str());
    return;
  }
  if (verb != "POST") curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, verb.c_str());
}

int32_t CurlTransfer::Start() {
  if (curl_multi_add_handle(multi_, easy_) != CURLM_OK) return kInternetInternalError;
  added_ = true;
  int32_t error = Pump([this] { return headers_done_ || body_started_; });
  if (error != 0) return error;
  bool nothing_staged = staged_pos_ == staged_.size();
  if (finished_ && result_ != CURLE_OK && nothing_staged) return FailureNumber();
  return 0;
}

int32_t CurlTransfer::Read(std::vector<uint8_t>& out, size_t size, size_t& got) {
  sink_ = &out;
  sink_room_ = size;
  TakeStaged();
  got = size - sink_room_;
  int32_t error = 0;
  if (got == 0 && pending_error_ != 0) {
    error = std::exchange(pending_error_, 0);
  } else if (sink_room_ > 0 && !finished_ && pending_error_ == 0) {
    int32_t pumped = Pump([this] { return sink_room_ == 0; });
    got = size - sink_room_;
    if (pumped != 0 && got == 0) error = pumped;
    if (pumped != 0 && got > 0) pending_error_ = pumped;
  }
  sink_ = nullptr;
  sink_room_ = 0;
  if (error != 0 || got > 0 || size == 0) return error;
  return finished_ && result_ != CURLE_OK ? FailureNumber() : 0;
}

int32_t CurlTransfer::Stream(const PieceSink& sink, bool& stopped) {
  stopped = false;
  if (staged_pos_ < staged_.size()) {
    if (!sink(staged_.data() + staged_pos_, staged_.size() - staged_pos_)) {
      stopped = true;
      return 0;
    }
    staged_.clear();
    staged_pos_ = 0;
  }
  if (pending_error_ != 0) return std::exchange(pending_error_, 0);
  stream_ = &sink;
  stream_stopped_ = false;
  int32_t pumped = finished_ ? 0 : Pump([this] { return stream_stopped_; });
  stream_ = nullptr;
  stopped = stream_stopped_;
  if (stopped) return 0;
  if (pumped != 0) return pumped;
  return finished_ && result_ != CURLE_OK ? FailureNumber() : 0;
}

void CurlTransfer::TakeStaged() {
  size_t count = std::min(sink_room_, staged_.size() - staged_pos_);
  Deliver(staged_.data() + staged_pos_, count);
  staged_pos_ += count;
  if (staged_pos_ == staged_.size()) {
    staged_.clear();
    staged_pos_ = 0;
  }
}

void CurlTransfer::Deliver(const uint8_t* data, size_t count) {
  if (count == 0) return;
  sink_->insert(sink_->end(), data, data + count);
  sink_room_ -= count;
}

template <class Done>
int32_t CurlTransfer::Pump(Done done) {
  Clock::time_point last = Clock::now();
  while (!done() && !finished_) {
    if (paused_) {
      paused_ = false;
      curl_easy_pause(easy_, CURLPAUSE_CONT);  // may deliver the held data right away
      continue;
    }
    int running = 0;
    if (curl_multi_perform(multi_, &running) != CURLM_OK) return kInternetInternalError;
    CollectMessages();
    if (done() || finished_) break;
    if (std::exchange(active_, false)) last = Clock::now();
    int wait_ms = 1000;
    if (request_.idle_timeout_ms > 0) {
      auto idle = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - last);
      int64_t left = request_.idle_timeout_ms - idle.count();
      if (left <= 0) return kInternetTimeout;
      wait_ms = static_cast<int>(std::min<int64_t>(left, wait_ms));
    }
    curl_multi_poll(multi_, nullptr, 0, wait_ms, nullptr);
  }
  return 0;
}

void CurlTransfer::CollectMessages() {
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg == CURLMSG_DONE) {
      finished_ = true;
      result_ = message->data.result;
    }
  }
}

int32_t CurlTransfer::FailureNumber() const {
  TransferFailure failure{.code = result_, .x509_error = x509_error_,
                          .headers_done = headers_done_, .ftp = request_.scheme == kSchemeFtp};
  curl_easy_getinfo(easy_, CURLINFO_OS_ERRNO, &failure.os_errno);
  return WinInetErrorFor(failure);
}

size_t CurlTransfer::OnWrite(char* data, size_t size, size_t count, void* self_pointer) {
  auto* self = static_cast<CurlTransfer*>(self_pointer);
  size_t total = size * count;
  self->active_ = true;
  self->body_started_ = true;
  self->headers_done_ = true;
  const auto* bytes = reinterpret_cast<const uint8_t*>(data);
  if (self->stream_ != nullptr) {
    if ((*self->stream_)(bytes, total)) return total;
    self->stream_stopped_ = true;
    return CURL_WRITEFUNC_PAUSE;  // held by libcurl until the transfer is dropped
  }
  size_t used = std::min(total, self->sink_room_);
  self->Deliver(bytes, used);
  if (used == total) return total;
  size_t staged = self->staged_.size() - self->staged_pos_;
  if (used == 0 && staged >= kStagingLimit) {
    self->paused_ = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  if (self->staged_pos_ > 0) {
    self->staged_.erase(self->staged_.begin(), self->staged_.begin() + self->staged_pos_);
    self->staged_pos_ = 0;
  }
  self->staged_.insert(self->staged_.end(), bytes + used, bytes + total);
  return total;
}

size_t CurlTransfer::OnHeader(char* data, size_t size, size_t count, void* self_pointer) {
  auto* self = static_cast<CurlTransfer*>(self_pointer);
  size_t total = size * count;
  self->active_ = true;
  if (!self->IsHttp() || self->headers_done_) return total;
  if (self->headers_.AddLine(std::string_view(data, total)) && IsFinalResponse(self->headers_)) {
    self->headers_done_ = true;
  }
  return total;
}

size_t CurlTransfer::OnRead(char* data, size_t size, size_t count, void* self_pointer) {
  auto* self = static_cast<CurlTransfer*>(self_pointer);
  const UploadSource& upload = self->request_.upload;
  self->active_ = true;
  int64_t left = upload.length - self->upload_sent_;
  size_t want = static_cast<size_t>(std::min<int64_t>(left, static_cast<int64_t>(size * count)));
  if (want == 0) return 0;
  ssize_t got = ::pread(upload.fd, data, want, upload.offset + self->upload_sent_);
  if (got < 0) return CURL_READFUNC_ABORT;
  self->upload_sent_ += got;
  return static_cast<size_t>(got);
}

CURLcode CurlTransfer::OnSslContext(CURL*, void* ssl_ctx, void* self) {
  auto* context = static_cast<SSL_CTX*>(ssl_ctx);
  SSL_CTX_set_ex_data(context, TransferSlot(), self);
  if (static_cast<CurlTransfer*>(self)->request_.no_cert_check) {
    SSL_CTX_set_verify(context, SSL_VERIFY_NONE, nullptr);
    return CURLE_OK;
  }
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, &CurlTransfer::OnVerify);
  return CURLE_OK;
}

// Keeps the first certificate error and, when dates are ignored, clears only the two date
// errors so that every other check still applies.
int CurlTransfer::OnVerify(int preverify_ok, X509_STORE_CTX* store) {
  if (preverify_ok == 1) return 1;
  auto* ssl = static_cast<SSL*>(
      X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  auto* self = ssl == nullptr ? nullptr
                              : static_cast<CurlTransfer*>(
                                    SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), TransferSlot()));
  int error = X509_STORE_CTX_get_error(store);
  bool date = error == X509_V_ERR_CERT_HAS_EXPIRED || error == X509_V_ERR_CERT_NOT_YET_VALID;
  if (self != nullptr && date && self->request_.ignore_cert_date) {
    X509_STORE_CTX_set_error(store, X509_V_OK);
    return 1;
  }
  if (self != nullptr && self->x509_error_ == 0) self->x509_error_ = error;
  return 0;
}

}  // namespace pelmora::net_internal

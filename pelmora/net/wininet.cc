// The WinINet object's data, properties, URL handling and session.
#include "pelmora/net/wininet.h"

#include <cstring>

#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/net/internal/curl_errors.h"
#include "pelmora/net/internal/curl_session.h"
#include "pelmora/net/internal/curl_transfer.h"
#include "pelmora/net/internal/url_cracker.h"

namespace pelmora {
namespace {

using net_internal::CrackedUrl;

struct ProtocolRow {
  int32_t protocol;
  const char* scheme;
  int32_t port;
  int32_t service;
};

constexpr ProtocolRow kProtocols[] = {
    {icFTP, "ftp", 21, 1},
    {icGopher, "gopher", 70, 2},
    {icHTTP, "http", 80, 3},
    {icHTTPS, "https", 443, 3},
};

const ProtocolRow* FindProtocol(int32_t protocol) {
  for (const ProtocolRow& row : kProtocols) {
    if (row.protocol == protocol) return &row;
  }
  return nullptr;
}

std::string TrimmedSpaces(std::string_view text) {
  size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  size_t last = text.find_last_not_of(' ');
  return std::string(text.substr(first, last - first + 1));
}

// The scheme a URL without one is given: the protocol's, HTTP for anything unknown.
std::string DefaultScheme(int32_t protocol) {
  switch (protocol) {
    case icFTP: return "ftp";
    case icGopher: return "gopher";
    case icHTTPS: return "https";
    default: return "http";
  }
}

// Protocol and service number of a cracked scheme; false for the schemes that are not
// transfers.
bool ProtocolOfScheme(int32_t scheme, int32_t& protocol, int32_t& service) {
  switch (scheme) {
    case InternetSchemeUnknown:
    case InternetSchemeDefault:
    case InternetSchemeHttp: protocol = icHTTP, service = 3; return true;
    case InternetSchemeFtp: protocol = icFTP, service = 1; return true;
    case InternetSchemeGopher: protocol = icGopher, service = 2; return true;
    case InternetSchemeHttps: protocol = icHTTPS, service = 3; return true;
    default: return false;
  }
}

}  // namespace

WinINet::WinINet() = default;

WinINet::~WinINet() {
  Cancel();
  session_.reset();
}

int32_t WinINet::hInternet() const {
  return session_ ? static_cast<int32_t>(session_->Handle()) : 0;
}

void WinINet::SetChunkSize(int32_t value) {
  if (value < 1) throw RuntimeError(380);
  chunk_size_ = value;
}

int16_t WinINet::RemotePort() const {
  if (remote_port_ > 32767 || remote_port_ < -32768) throw RuntimeError(6);
  return static_cast<int16_t>(remote_port_);
}

void WinINet::SetReceiveTimeout(int32_t value) {
  if (value < 0) throw RuntimeError(380);
  receive_timeout_ = value;
}

void WinINet::SetProtocol(int32_t value) {
  const ProtocolRow* row = FindProtocol(value);
  if (row == nullptr) throw RuntimeError(380);
  protocol_ = row->protocol;
  scheme_ = row->scheme;
  remote_port_ = row->port;
  service_type_ = row->service;
}

std::string WinINet::URL() const {
  const ProtocolRow* row = FindProtocol(protocol_);
  std::string port = row != nullptr && remote_port_ == row->port
                         ? std::string()
                         : ":" + std::to_string(remote_port_);
  std::string user;
  if (!user_.empty() || !password_.empty()) user = user_ + ":" + password_ + "@";
  std::string document;
  if (!document_.empty()) document = document_[0] == '/' ? document_ : "/" + document_;
  return scheme_ + "://" + user + remote_host_ + port + document;
}

void WinINet::SetURL(std::string_view value) {
  std::string text = TrimmedSpaces(value);
  size_t separator = text.find("://");
  if (separator == std::string::npos) {
    text = DefaultScheme(protocol_) + "://" + text;
  } else if (separator == 0) {
    text = DefaultScheme(protocol_) + text;
  }
  // The URL is cracked as ANSI bytes: a character beyond ASCII is escaped as its code page byte.
  net_internal::CanonicalResult canonical = net_internal::CanonicalizeUrl(Utf8ToAnsi(text));
  if (!canonical.ok) net_internal::RaiseWithText(canonical.error);
  CrackedUrl url = net_internal::CrackUrl(canonical.url);
  if (!url.ok) net_internal::RaiseWithText(url.error);
  int32_t protocol = 0;
  int32_t service = 0;
  if (!ProtocolOfScheme(url.scheme, protocol, service)) throw Error(35752, "URL is malformed");
  protocol_ = protocol;
  service_type_ = service;
  scheme_ = AnsiToUtf8(url.scheme_text);
  remote_host_ = AnsiToUtf8(url.host);
  remote_port_ = url.port;
  user_ = AnsiToUtf8(url.user);
  password_ = AnsiToUtf8(url.password);
  document_ = AnsiToUtf8(url.path + url.extra);
}

void WinINet::OpenSession() {
  if (!session_) {
    session_ = std::make_unique<net_internal::CurlSession>(std::string(kInetAgent), access_type_,
                                                           proxy_);
  }
  // The receive time-out is taken from the property by every request (see Apply).
}

void WinINet::Cancel() { transfer_.reset(); }

void WinINet::CheckPort16() const {
  if (!full_port_range_) (void)RemotePort();
}

void WinINet::RequireHost() const {
  if (remote_host_.empty()) throw Error(35755, "No remote computer is specified");
}

void WinINet::RequireHttp() const {
  if (protocol_ != icHTTP && protocol_ != icHTTPS) {
    throw Error(35755, "Protocal has not implemented yet!");
  }
}

// The request settings that follow from the properties (the request flags of the protocol).
void WinINet::Apply(net_internal::TransferRequest& request) const {
  bool secure = protocol_ == icHTTPS;
  bool web = secure || protocol_ == icHTTP;
  request.ignore_cert_date = secure && ignore_cert_date_;
  request.ignore_cert_name = secure && ignore_cert_name_;
  request.ca_file = secure ? ca_file_ : "";
  request.no_cert_check = secure && no_cert_check_;
  request.cookies = !(web && no_cookies_);
  request.idle_timeout_ms = receive_timeout_;
}

net_internal::TransferRequest WinINet::RequestFromParts() const {
  net_internal::TransferRequest request;
  request.scheme = protocol_ == icHTTPS ? InternetSchemeHttps : InternetSchemeHttp;
  request.host = Utf8ToAnsi(remote_host_);
  request.port = remote_port_;
  request.user = Utf8ToAnsi(user_);
  request.password = Utf8ToAnsi(password_);
  request.document = Utf8ToAnsi(document_);
  Apply(request);
  return request;
}

void WinINet::StartRequest(net_internal::TransferRequest request) {
  transfer_ = std::make_unique<net_internal::CurlTransfer>(*session_, std::move(request));
  if (int32_t error = transfer_->Start(); error != 0) {
    Cancel();
    net_internal::RaiseWithText(error);
  }
}

}  // namespace pelmora

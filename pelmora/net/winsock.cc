#include "pelmora/net/winsock.h"

#include <arpa/inet.h>

#include <cstring>
#include <utility>

#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/net/internal/socket_api.h"
#include "pelmora/net/internal/socket_options.h"
#include "pelmora/net/internal/wsa_errors.h"

namespace pelmora {
namespace {

using net_internal::Ipv4Endpoint;
using net_internal::SocketResult;
using net_internal::WsaErrorFromErrno;

constexpr uint32_t kNoAddress = INADDR_NONE;
constexpr int kListenBacklog = 20;
constexpr char kInvalidArgText[] =
    "The argument passed to a function wan not in the correct format or in the specified range";

// Host resolution: a dotted address, else the first IPv4 address a look-up gives; kNoAddress for
// an empty host or when nothing is found.
uint32_t ResolveHost(net_internal::SocketApi& api, const std::string& host) {
  if (host.empty()) return kNoAddress;
  std::string ansi = Utf8ToAnsi(host);
  uint32_t address = net_internal::ParseDottedAddress(ansi);
  if (address != kNoAddress) return address;
  SocketResult found = api.ResolveIPv4(ansi);
  return found.ok() ? static_cast<uint32_t>(found.value) : kNoAddress;
}

// The four bytes of a network-order address, lowest-addressed first, joined by ".".
std::string AddressText(uint32_t address) {
  uint8_t bytes[4];
  std::memcpy(bytes, &address, sizeof(bytes));
  std::string text;
  for (int i = 0; i < 4; ++i) {
    if (i > 0) text += '.';
    text += std::to_string(bytes[i] & 0xFF);
  }
  return text;
}

uint16_t NetworkPort(int32_t port) { return htons(static_cast<uint16_t>(port & 0xFFFF)); }

}  // namespace

WinSock::WinSock() : WinSock(net_internal::SystemSocketApi()) {}

WinSock::WinSock(std::shared_ptr<net_internal::SocketApi> api) : api_(std::move(api)) {
  std::string name;
  local_host_ = api_->HostName(name).ok() ? name : std::string();
  uint32_t address = ResolveHost(*api_, local_host_);
  if (address != kNoAddress) local_ip_ = AddressText(address);
}

WinSock::~WinSock() { Disconnect(); }

WinSock::WinSock(WinSock&& other) noexcept { *this = std::move(other); }

WinSock& WinSock::operator=(WinSock&& other) noexcept {
  if (this == &other) return *this;
  Disconnect();
  api_ = other.api_;
  version_ = std::move(other.version_);
  local_host_ = std::move(other.local_host_);
  local_ip_ = std::move(other.local_ip_);
  local_port_ = other.local_port_;
  remote_host_ = std::move(other.remote_host_);
  remote_ip_ = std::move(other.remote_ip_);
  remote_port_ = other.remote_port_;
  handle_ = std::exchange(other.handle_, -1);
  protocol_ = other.protocol_;
  last_error_ = other.last_error_;
  receive_timeout_ = other.receive_timeout_;
  read_ahead_ = std::move(other.read_ahead_);
  read_pos_ = std::exchange(other.read_pos_, 0);
  read_end_ = std::exchange(other.read_end_, 0);
  read_ahead_enabled_ = other.read_ahead_enabled_;
  last_received_ = other.last_received_;
  peer_closed_ = other.peer_closed_;
  return *this;
}

void WinSock::Raise(int32_t number) {
  last_error_ = number;
  throw Error(number, GetErrorDescription(number));
}

void WinSock::RaiseSocketError(int error) { Raise(WsaErrorFromErrno(error)); }

bool WinSock::RefusedWithoutSocket() {
  if (handle_ != -1) return false;
  last_error_ = sckNotConnected;
  return true;
}

void WinSock::SetProtocol(SckProtocolConstants value) {
  if (value != sckTCPProtocol && value != sckUDPProtocol) Raise(sckInvalidPropertyValue);
  protocol_ = value;
}

void WinSock::SetReceiveTimeout(int32_t value) {
  if (value < 0) Raise(sckInvalidPropertyValue);
  receive_timeout_ = value;
}

void WinSock::Attach(int32_t hSocket) {
  Disconnect();
  handle_ = hSocket;
}

int32_t WinSock::Detach() {
  DropReadAhead();
  return std::exchange(handle_, -1);
}

void WinSock::Disconnect() {
  DropReadAhead();
  if (handle_ == -1) return;
  api_->Close(std::exchange(handle_, -1));
}

void WinSock::DropReadAhead() {
  read_pos_ = 0;
  read_end_ = 0;
}

bool WinSock::GetSocketOption(SckOptionLevelConstants Level, SckOptionNameConstants OptName,
                              int32_t& OptVal) {
  if (RefusedWithoutSocket()) return false;
  SocketResult result = net_internal::ReadSocketOption(*api_, handle_, Level, OptName, OptVal);
  last_error_ = WsaErrorFromErrno(result.error);
  return result.ok();
}

bool WinSock::SetSocketOption(SckOptionLevelConstants Level, SckOptionNameConstants OptName,
                              int32_t OptVal) {
  if (RefusedWithoutSocket()) return false;
  SocketResult result = net_internal::WriteSocketOption(*api_, handle_, Level, OptName, OptVal);
  last_error_ = WsaErrorFromErrno(result.error);
  return result.ok();
}

int WinSock::OpenSocket() {
  int type = protocol_ == sckUDPProtocol ? SOCK_DGRAM : SOCK_STREAM;
  // Protocol number 6 (TCP) for both types: a datagram socket is refused (10043), as designed.
  SocketResult created = api_->Socket(type, IPPROTO_TCP);
  if (!created.ok()) RaiseSocketError(created.error);
  return static_cast<int>(created.value);
}

void WinSock::Connect() {
  Disconnect();
  uint32_t address = ResolveHost(*api_, remote_host_);
  if (address == kNoAddress) Raise(sckAddressNotAvailable);
  remote_ip_ = AddressText(address);
  int fd = OpenSocket();
  SocketResult connected = api_->Connect(fd, Ipv4Endpoint{address, NetworkPort(remote_port_)});
  if (!connected.ok()) {
    api_->Close(fd);
    RaiseSocketError(connected.error);
  }
  last_error_ = 0;
  handle_ = fd;
}

void WinSock::Listen() {
  Disconnect();
  int fd = OpenSocket();
  // Lets a port be bound again while old connections on it linger in TIME_WAIT, as the Windows
  // stack allows by default; it does not let two sockets listen on one port.
  int on = 1;
  api_->SetSockOpt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  SocketResult done = api_->Bind(fd, Ipv4Endpoint{htonl(INADDR_ANY), NetworkPort(local_port_)});
  if (done.ok()) done = api_->Listen(fd, kListenBacklog);
  if (!done.ok()) {
    api_->Close(fd);
    RaiseSocketError(done.error);
  }
  last_error_ = 0;
  handle_ = fd;
}

std::unique_ptr<WinSock> WinSock::Accept() {
  SocketResult accepted = api_->Accept(handle_, nullptr);
  if (!accepted.ok()) {
    last_error_ = WsaErrorFromErrno(accepted.error);
    int32_t kept = last_error_;
    Disconnect();
    last_error_ = kept;
    return nullptr;
  }
  auto connection = std::make_unique<WinSock>(api_);
  connection->Attach(static_cast<int32_t>(accepted.value));
  last_error_ = 0;
  return connection;
}

std::string WinSock::GetErrorDescription(int32_t lErrNumber) const {
  if (lErrNumber == sckInvalidPropertyValue) return "Invalid property value";
  if (lErrNumber == sckInvalidArg) return kInvalidArgText;
  return DescribeError(lErrNumber);
}

}  // namespace pelmora

#include "pelmora/testing/fault_socket_api.h"

#include <algorithm>

namespace pelmora::testing {

using net_internal::Ipv4Endpoint;
using net_internal::SocketResult;

FaultSocketApi::FaultSocketApi(std::shared_ptr<net_internal::SocketApi> inner)
    : inner_(std::move(inner)) {}

void FaultSocketApi::FailCall(SocketCall kind, int nth, int error) {
  std::lock_guard lock(mutex_);
  faults_[{kind, nth}] = error;
}

void FaultSocketApi::ShortSend(int nth, size_t max_bytes) {
  std::lock_guard lock(mutex_);
  short_sends_[nth] = max_bytes;
}

void FaultSocketApi::LimitEverySend(size_t max_bytes) {
  std::lock_guard lock(mutex_);
  every_send_limit_ = max_bytes;
}

void FaultSocketApi::SetHostName(std::string name) {
  std::lock_guard lock(mutex_);
  host_name_ = std::move(name);
}

int FaultSocketApi::Calls(SocketCall kind) const {
  std::lock_guard lock(mutex_);
  auto it = calls_.find(kind);
  return it == calls_.end() ? 0 : it->second;
}

std::optional<int> FaultSocketApi::Count(SocketCall kind) {
  std::lock_guard lock(mutex_);
  int nth = ++calls_[kind];
  auto it = faults_.find({kind, nth});
  if (it == faults_.end()) return std::nullopt;
  return it->second;
}

size_t FaultSocketApi::SendLimit(size_t size) {
  std::lock_guard lock(mutex_);
  if (every_send_limit_ != 0) size = std::min(size, every_send_limit_);
  auto it = short_sends_.find(calls_[SocketCall::kSend]);
  if (it != short_sends_.end()) size = std::min(size, it->second);
  return size;
}

// Each call: counted, failed when armed, otherwise passed on.
#define PELMORA_FAULT_OR_PASS(kind, call)                                      \
  if (std::optional<int> error = Count(kind)) return SocketResult{-1, *error}; \
  return inner_->call

SocketResult FaultSocketApi::Socket(int type, int protocol) {
  PELMORA_FAULT_OR_PASS(SocketCall::kSocket, Socket(type, protocol));
}
SocketResult FaultSocketApi::Connect(int fd, const Ipv4Endpoint& to) {
  PELMORA_FAULT_OR_PASS(SocketCall::kConnect, Connect(fd, to));
}
SocketResult FaultSocketApi::Bind(int fd, const Ipv4Endpoint& at) {
  PELMORA_FAULT_OR_PASS(SocketCall::kBind, Bind(fd, at));
}
SocketResult FaultSocketApi::Listen(int fd, int backlog) {
  PELMORA_FAULT_OR_PASS(SocketCall::kListen, Listen(fd, backlog));
}
SocketResult FaultSocketApi::Accept(int fd, Ipv4Endpoint* peer) {
  PELMORA_FAULT_OR_PASS(SocketCall::kAccept, Accept(fd, peer));
}
SocketResult FaultSocketApi::Send(int fd, const void* data, size_t size, int flags) {
  PELMORA_FAULT_OR_PASS(SocketCall::kSend, Send(fd, data, SendLimit(size), flags));
}
SocketResult FaultSocketApi::Recv(int fd, void* data, size_t size, int flags) {
  PELMORA_FAULT_OR_PASS(SocketCall::kRecv, Recv(fd, data, size, flags));
}
SocketResult FaultSocketApi::Poll(int fd, short events, int timeout_ms) {
  PELMORA_FAULT_OR_PASS(SocketCall::kPoll, Poll(fd, events, timeout_ms));
}
SocketResult FaultSocketApi::GetSockOpt(int fd, int level, int name, void* data, socklen_t* size) {
  PELMORA_FAULT_OR_PASS(SocketCall::kGetSockOpt, GetSockOpt(fd, level, name, data, size));
}
SocketResult FaultSocketApi::SetSockOpt(int fd, int level, int name, const void* data,
                                        socklen_t size) {
  PELMORA_FAULT_OR_PASS(SocketCall::kSetSockOpt, SetSockOpt(fd, level, name, data, size));
}
SocketResult FaultSocketApi::LocalEndpoint(int fd, Ipv4Endpoint& at) {
  PELMORA_FAULT_OR_PASS(SocketCall::kLocalEndpoint, LocalEndpoint(fd, at));
}
SocketResult FaultSocketApi::Close(int fd) { PELMORA_FAULT_OR_PASS(SocketCall::kClose, Close(fd)); }
SocketResult FaultSocketApi::ResolveIPv4(const std::string& name) {
  PELMORA_FAULT_OR_PASS(SocketCall::kResolve, ResolveIPv4(name));
}

#undef PELMORA_FAULT_OR_PASS

SocketResult FaultSocketApi::HostName(std::string& name) {
  if (std::optional<int> error = Count(SocketCall::kHostName)) return SocketResult{-1, *error};
  {
    std::lock_guard lock(mutex_);
    if (host_name_) {
      name = *host_name_;
      return SocketResult{};
    }
  }
  return inner_->HostName(name);
}

}  // namespace pelmora::testing

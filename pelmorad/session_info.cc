// Requests about the service machine: path by key, system folder, clock, same machine.
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cstring>
#include <ctime>
#include <memory>

#include "pelmora/admin/wire_replies.h"
#include "pelmorad/audit.h"
#include "pelmorad/session.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::RequestBlock;
using pelmora::admin::RequestCode;

namespace {

struct IfaddrsFree {
  void operator()(ifaddrs* list) const { ::freeifaddrs(list); }
};

asio::ip::address AddressOf(const sockaddr* address) {
  if (address->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    asio::ip::address_v4::bytes_type bytes;
    std::memcpy(bytes.data(), &v4->sin_addr, bytes.size());
    return asio::ip::address_v4(bytes);
  }
  const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
  asio::ip::address_v6::bytes_type bytes;
  std::memcpy(bytes.data(), &v6->sin6_addr, bytes.size());
  return asio::ip::address_v6(bytes, v6->sin6_scope_id);
}

// True when `client` is one of this machine's addresses (loopback included).
bool IsOwnAddress(asio::ip::address client) {
  if (client.is_v6() && client.to_v6().is_v4_mapped()) {
    client = asio::ip::make_address_v4(asio::ip::v4_mapped, client.to_v6());
  }
  if (client.is_loopback()) return true;
  ifaddrs* raw = nullptr;
  if (::getifaddrs(&raw) != 0) return false;
  std::unique_ptr<ifaddrs, IfaddrsFree> list(raw);
  for (ifaddrs* entry = raw; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) continue;
    int family = entry->ifa_addr->sa_family;
    if (family != AF_INET && family != AF_INET6) continue;
    asio::ip::address own = AddressOf(entry->ifa_addr);
    if (own.is_v6() && client.is_v6() && own.to_v6().to_bytes() == client.to_v6().to_bytes()) {
      return true;
    }
    if (own == client) return true;
  }
  return false;
}

}  // namespace

asio::awaitable<bool> Session::HandlePathWithKey(const RequestBlock& block) {
  std::string key =
      block.args.empty() ? std::string() : pelmora::admin::DecodeUnicodeArgument(block.args[0]);
  std::optional<std::string> path = runtime_->config.PathForKey(key);
  AuditRequest(block.code, key, path ? kSuccess : kFileNotFound);
  co_return co_await SendSized(pelmora::admin::EncodeWireText(path.value_or("")));
}

asio::awaitable<bool> Session::HandleSameMachine(const RequestBlock& block) {
  bool same = IsOwnAddress(connection_.peer.address());
  AuditRequest(block.code, same ? "same machine" : "other machine", kSuccess);
  co_return co_await SendMessage(pelmora::admin::BuildResultReply(same, 0, ""));
}

asio::awaitable<bool> Session::HandleText(const RequestBlock& block) {
  bool clock = static_cast<RequestCode>(block.code) == RequestCode::kGetSystemTime;
  std::string text =
      clock ? FormatNow("%Y-%m-%d %H:%M:%S", false) : runtime_->config.system_directory;
  AuditRequest(block.code, text, kSuccess);
  co_return co_await SendMessage(pelmora::admin::EncodeWireText(text));
}

}  // namespace pelmorad

// Requests about the service machine and its files: path by key, same machine, the file version
// of a Windows executable, system folder, clock.
#include <fcntl.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cstring>
#include <ctime>
#include <memory>

#include "pelmora/admin/wire_replies.h"
#include "pelmorad/audit.h"
#include "pelmorad/pe_version.h"
#include "pelmorad/session_requests.h"
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

asio::awaitable<bool> HandlePathWithKey(RequestScope& request, const RequestBlock& block) {
  std::string key =
      block.args.empty() ? std::string() : pelmora::admin::DecodeUnicodeArgument(block.args[0]);
  std::optional<std::string> path = request.runtime.config.PathForKey(key);
  request.Audit(block.code, key, path ? kSuccess : kFileNotFound);
  co_return co_await request.channel.SendSized(pelmora::admin::EncodeWireText(path.value_or("")));
}

asio::awaitable<bool> HandleSameMachine(RequestScope& request, const RequestBlock& block) {
  bool same = IsOwnAddress(request.client);
  request.Audit(block.code, same ? "same machine" : "other machine", kSuccess);
  co_return co_await request.channel.SendMessage(pelmora::admin::BuildResultReply(same, 0, ""));
}

asio::awaitable<bool> HandleFileVersion(RequestScope& request, const RequestBlock& block) {
  Target target = request.ResolveArgument(block, 0, false);
  std::string version;
  int32_t result = target.error;
  if (result == kSuccess) {
    auto drives = request.runtime.drives;
    result = co_await request.RunOnPool([&] {
      Opened file = drives->OpenRegular(target.path, O_RDONLY);
      if (!file.fd) return drives->ResolveError(target.path, file.error);
      version = ReadFileVersion(file.fd.get());
      return kSuccess;
    });
  }
  request.Audit(block.code, target.text, result);
  std::vector<uint8_t> data = pelmora::admin::EncodeWireText(version);
  co_return co_await request.channel.SendMessage(data);
}

asio::awaitable<bool> HandleText(RequestScope& request, const RequestBlock& block) {
  bool clock = static_cast<RequestCode>(block.code) == RequestCode::kGetSystemTime;
  std::string text =
      clock ? FormatNow("%Y-%m-%d %H:%M:%S", false) : request.runtime.config.system_directory;
  request.Audit(block.code, text, kSuccess);
  co_return co_await request.channel.SendMessage(pelmora::admin::EncodeWireText(text));
}

}  // namespace pelmorad

#include "pelmora/net/internal/socket_options.h"

#include <netinet/tcp.h>
#include <sys/time.h>

#include <cerrno>
#include <optional>

#include "pelmora/net/internal/wsa_errors.h"

namespace pelmora::net_internal {
namespace {

constexpr int32_t kPublishedTcpLevel = 6;
constexpr int32_t kPublishedSocketLevel = 65535;

enum class Kind { kInteger, kLinger, kDontLinger, kMilliseconds, kBufferSize, kErrorCode };

struct PlatformOption {
  int32_t published = 0;
  int name = 0;
  Kind kind = Kind::kInteger;
};

// Published SOL_SOCKET options and their platform names. SO_USELOOPBACK and
// SO_EXCLUSIVEADDRUSE have no counterpart and are refused.
constexpr PlatformOption kSocketLevelOptions[] = {
    {1, SO_DEBUG, Kind::kInteger},
    {2, SO_ACCEPTCONN, Kind::kInteger},
    {4, SO_REUSEADDR, Kind::kInteger},
    {8, SO_KEEPALIVE, Kind::kInteger},
    {16, SO_DONTROUTE, Kind::kInteger},
    {32, SO_BROADCAST, Kind::kInteger},
    {128, SO_LINGER, Kind::kLinger},
    {256, SO_OOBINLINE, Kind::kInteger},
    {-129, SO_LINGER, Kind::kDontLinger},
    {4097, SO_SNDBUF, Kind::kBufferSize},
    {4098, SO_RCVBUF, Kind::kBufferSize},
    {4103, SO_ERROR, Kind::kErrorCode},
    {4104, SO_TYPE, Kind::kInteger},
    {4101, SO_SNDTIMEO, Kind::kMilliseconds},
    {4102, SO_RCVTIMEO, Kind::kMilliseconds},
};

struct Resolved {
  int level = 0;
  PlatformOption option;
};

std::optional<Resolved> Translate(int32_t level, int32_t name) {
  if (level == kPublishedTcpLevel && name == 1) {
    return Resolved{IPPROTO_TCP, {1, TCP_NODELAY, Kind::kInteger}};
  }
  if (level != kPublishedSocketLevel) return std::nullopt;
  for (const PlatformOption& option : kSocketLevelOptions) {
    if (option.published == name) return Resolved{SOL_SOCKET, option};
  }
  return std::nullopt;
}

template <typename T>
SocketResult Read(SocketApi& api, int fd, const Resolved& r, T& out) {
  socklen_t size = sizeof(out);
  return api.GetSockOpt(fd, r.level, r.option.name, &out, &size);
}

template <typename T>
SocketResult Write(SocketApi& api, int fd, const Resolved& r, const T& in) {
  return api.SetSockOpt(fd, r.level, r.option.name, &in, sizeof(in));
}

int32_t PackLinger(const linger& record) {
  uint32_t packed = (static_cast<uint32_t>(record.l_onoff) & 0xFFFFu) |
                    (static_cast<uint32_t>(record.l_linger) << 16);
  return static_cast<int32_t>(packed);
}

// The published value of a platform value read for `kind`.
SocketResult ReadAs(SocketApi& api, int fd, const Resolved& r, int32_t& value) {
  switch (r.option.kind) {
    case Kind::kLinger:
    case Kind::kDontLinger: {
      linger record{};
      SocketResult result = Read(api, fd, r, record);
      if (result.ok()) {
        value = r.option.kind == Kind::kLinger ? PackLinger(record) : (record.l_onoff == 0);
      }
      return result;
    }
    case Kind::kMilliseconds: {
      timeval time{};
      SocketResult result = Read(api, fd, r, time);
      if (result.ok()) value = static_cast<int32_t>(time.tv_sec * 1000 + time.tv_usec / 1000);
      return result;
    }
    default:
      break;
  }
  int platform = 0;
  SocketResult result = Read(api, fd, r, platform);
  if (!result.ok()) return result;
  if (r.option.kind == Kind::kBufferSize) platform /= 2;
  if (r.option.kind == Kind::kErrorCode) platform = WsaErrorFromErrno(platform);
  value = platform;
  return result;
}

SocketResult WriteLinger(SocketApi& api, int fd, const Resolved& r, int32_t value) {
  linger record{};
  SocketResult result = Read(api, fd, r, record);
  if (!result.ok()) return result;
  int on_off = static_cast<uint16_t>(value & 0xFFFF);
  record.l_onoff = r.option.kind == Kind::kLinger ? on_off : (on_off == 0 ? 1 : 0);
  return Write(api, fd, r, record);
}

}  // namespace

SocketResult ReadSocketOption(SocketApi& api, int fd, int32_t level, int32_t name, int32_t& value) {
  std::optional<Resolved> resolved = Translate(level, name);
  if (!resolved) return SocketResult{-1, ENOPROTOOPT};
  return ReadAs(api, fd, *resolved, value);
}

SocketResult WriteSocketOption(SocketApi& api, int fd, int32_t level, int32_t name, int32_t value) {
  std::optional<Resolved> resolved = Translate(level, name);
  if (!resolved) return SocketResult{-1, ENOPROTOOPT};
  switch (resolved->option.kind) {
    case Kind::kLinger:
    case Kind::kDontLinger:
      return WriteLinger(api, fd, *resolved, value);
    case Kind::kMilliseconds: {
      timeval time{value / 1000, (value % 1000) * 1000};
      return Write(api, fd, *resolved, time);
    }
    default:
      return Write(api, fd, *resolved, value);
  }
}

}  // namespace pelmora::net_internal

#include "pelmora/net/winsock.h"

#include "pelmora/common/error.h"
#include "pelmora/net/internal/socket_api.h"

namespace pelmora {

WinSock::WinSock() : WinSock(net_internal::SystemSocketApi()) {}
WinSock::WinSock(std::shared_ptr<net_internal::SocketApi> api) : api_(std::move(api)) {}
WinSock::~WinSock() = default;

}  // namespace pelmora

// The published enumeration members of WinSock, by their exact published names.
#include <span>

#include "pelmora/net/winsock.h"

namespace pelmora {
namespace {

constexpr WinSockConstant kConstants[] = {
    {"SckProtocolConstants", "sckTCPProtocol", 0},
    {"SckProtocolConstants", "sckUDPProtocol", 1},
    {"SckDataTypeConstants", "sckString", 0},
    {"SckDataTypeConstants", "sckByteArray", 1},
    {"SckOptionLevelConstants", "IPPROTO_TCP", 6},
    {"SckOptionLevelConstants", "SOL_SOCKET", 65535},
    {"SckOptionNameConstants", "SO_DEBUG", 1},
    {"SckOptionNameConstants", "SO_ACCEPTCONN", 2},
    {"SckOptionNameConstants", "SO_REUSEADDR", 4},
    {"SckOptionNameConstants", "SO_KEEPALIVE", 8},
    {"SckOptionNameConstants", "SO_DONTROUTE", 16},
    {"SckOptionNameConstants", "SO_BROADCAST", 32},
    {"SckOptionNameConstants", "SO_USELOOPBACK", 64},
    {"SckOptionNameConstants", "SO_LINGER", 128},
    {"SckOptionNameConstants", "SO_OOBINLINE", 256},
    {"SckOptionNameConstants", "SO_DONTLINGER", -129},
    {"SckOptionNameConstants", "SO_EXCLUSIVEADDRUSE", -5},
    {"SckOptionNameConstants", "SO_SNDBUF", 4097},
    {"SckOptionNameConstants", "SO_RCVBUF", 4098},
    {"SckOptionNameConstants", "SO_ERROR", 4103},
    {"SckOptionNameConstants", "SO_TYPE", 4104},
    {"SckOptionNameConstants", "SO_SNDTIMEO", 4101},
    {"SckOptionNameConstants", "SO_RCVTIMEO", 4102},
    {"SckOptionNameConstants", "TCP_NODELAY", 1},
    {"SckErrorConstants", "sckSuccess", 0},
    {"SckErrorConstants", "sckInvalidPropertyValue", 380},
    {"SckErrorConstants", "sckGetNotSupported", 394},
    {"SckErrorConstants", "sckSetNotSupported", 383},
    {"SckErrorConstants", "sckOutOfMemory", 7},
    {"SckErrorConstants", "sckBadState", 40006},
    {"SckErrorConstants", "sckInvalidArg", 40014},
    {"SckErrorConstants", "sckUnsupported", 40018},
    {"SckErrorConstants", "sckInvalidOp", 40020},
    {"SckErrorConstants", "sckOutOfRange", 40021},
    {"SckErrorConstants", "sckWrongProtocol", 40026},
    {"SckErrorConstants", "sckOpCanceled", 10004},
    {"SckErrorConstants", "sckInvalidArgument", 10014},
    {"SckErrorConstants", "sckWouldBlock", 10035},
    {"SckErrorConstants", "sckInProgress", 10036},
    {"SckErrorConstants", "sckAlreadyComplete", 10037},
    {"SckErrorConstants", "sckNotSocket", 10038},
    {"SckErrorConstants", "sckMsgTooBig", 10040},
    {"SckErrorConstants", "sckPortNotSupported", 10043},
    {"SckErrorConstants", "sckAddressInUse", 10048},
    {"SckErrorConstants", "sckAddressNotAvailable", 10049},
    {"SckErrorConstants", "sckNetworkSubsystemFailed", 10050},
    {"SckErrorConstants", "sckNetworkUnreachable", 10051},
    {"SckErrorConstants", "sckNetReset", 10052},
    {"SckErrorConstants", "sckConnectAborted", 10053},
    {"SckErrorConstants", "sckConnectionReset", 10054},
    {"SckErrorConstants", "sckNoBufferSpace", 10055},
    {"SckErrorConstants", "sckAlreadyConnected", 10056},
    {"SckErrorConstants", "sckNotConnected", 10057},
    {"SckErrorConstants", "sckSocketShutdown", 10058},
    {"SckErrorConstants", "sckTimedout", 10060},
    {"SckErrorConstants", "sckConnectionRefused", 10061},
    {"SckErrorConstants", "sckNotInitialized", 10093},
    {"SckErrorConstants", "sckHostNotFound", 11001},
    {"SckErrorConstants", "sckHostNotFoundTryAgain", 11002},
    {"SckErrorConstants", "sckNonRecoverableError", 11003},
    {"SckErrorConstants", "sckNoData", 11004},
};

}  // namespace

std::span<const WinSockConstant> WinSockConstants() { return kConstants; }

}  // namespace pelmora

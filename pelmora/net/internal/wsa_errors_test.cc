#include "pelmora/net/internal/wsa_errors.h"

#include <gtest/gtest.h>
#include <netdb.h>

#include <cerrno>

#include "pelmora/common/error_texts.h"

namespace pelmora::net_internal {
namespace {

struct Mapped {
  int from;
  int32_t to;
  const char* name;
};

TEST(WsaErrors, ErrnoValuesMapToWindowsSocketsNumbers) {
  const Mapped cases[] = {
      {0, 0, nullptr},
      {ECONNREFUSED, 10061, "WSAECONNREFUSED"},
      {ETIMEDOUT, 10060, "WSAETIMEDOUT"},
      {ECONNRESET, 10054, "WSAECONNRESET"},
      {EPIPE, 10054, "WSAECONNRESET"},
      {EADDRINUSE, 10048, "WSAEADDRINUSE"},
      {EADDRNOTAVAIL, 10049, "WSAEADDRNOTAVAIL"},
      {ENOTCONN, 10057, "WSAENOTCONN"},
      {EINVAL, 10022, "WSAEINVAL"},
      {EWOULDBLOCK, 10035, "WSAEWOULDBLOCK"},
      {EAGAIN, 10035, "WSAEWOULDBLOCK"},
      {ENETUNREACH, 10051, "WSAENETUNREACH"},
      {EHOSTUNREACH, 10065, "WSAEHOSTUNREACH"},
      {EACCES, 10013, "WSAEACCES"},
      {EMFILE, 10024, "WSAEMFILE"},
      {EBADF, 10038, "WSAENOTSOCK"},
      {ENOTSOCK, 10038, "WSAENOTSOCK"},
      {ENOPROTOOPT, 10042, "WSAENOPROTOOPT"},
      {EPROTONOSUPPORT, 10043, "WSAEPROTONOSUPPORT"},
      {ECONNABORTED, 10053, "WSAECONNABORTED"},
      {ENOBUFS, 10055, "WSAENOBUFS"},
      {ESHUTDOWN, 10058, "WSAESHUTDOWN"},
      {EINPROGRESS, 10036, "WSAEINPROGRESS"},
      {EISCONN, 10056, "WSAEISCONN"},
      {ENETDOWN, 10050, "WSAENETDOWN"},
      {EINTR, 10004, "WSAEINTR"},
      {EMSGSIZE, 10040, "WSAEMSGSIZE"},
      {EDOM, 10022, "WSAEINVAL"},
  };
  for (const Mapped& c : cases) {
    int32_t number = WsaErrorFromErrno(c.from);
    EXPECT_EQ(number, c.to) << c.from;
    if (c.name != nullptr) {
      EXPECT_EQ(SystemMessageName(number), c.name) << c.from;
    }
  }
}

TEST(WsaErrors, ResolverCodesMapToWindowsSocketsNumbers) {
  const Mapped cases[] = {
      {0, 0, nullptr},
      {EAI_NONAME, 11001, nullptr},
      {EAI_AGAIN, 11002, nullptr},
      {EAI_FAIL, 11003, nullptr},
      {EAI_NODATA, 11004, nullptr},
      {EAI_MEMORY, 10055, nullptr},
      {EAI_FAMILY, 10047, nullptr},
      {-999, 11003, nullptr},
  };
  for (const Mapped& c : cases) EXPECT_EQ(WsaErrorFromResolver(c.from), c.to) << c.from;
  EXPECT_EQ(WsaErrorFromResolver(EAI_SYSTEM, ECONNREFUSED), 10061);
  EXPECT_EQ(WsaErrorFromResolver(EAI_SYSTEM, 0), 11003);
}

}  // namespace
}  // namespace pelmora::net_internal

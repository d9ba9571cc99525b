#include "pelmora/net/internal/wsa_errors.h"

#include <netdb.h>

#include <cerrno>

namespace pelmora::net_internal {
namespace {

struct Mapping {
  int from = 0;
  int32_t to = 0;
};

// errno -> Windows Sockets number. EAGAIN and EWOULDBLOCK are the same value on Linux.
constexpr Mapping kErrnoTable[] = {
    {EINTR, 10004},        {EBADF, 10038},           {EACCES, 10013},
    {EPERM, 10013},        {EFAULT, 10014},          {EINVAL, 10022},
    {EMFILE, 10024},       {ENFILE, 10024},          {EWOULDBLOCK, 10035},
    {EINPROGRESS, 10036},  {EALREADY, 10037},        {ENOTSOCK, 10038},
    {EDESTADDRREQ, 10039}, {EMSGSIZE, 10040},        {EPROTOTYPE, 10041},
    {ENOPROTOOPT, 10042},  {EPROTONOSUPPORT, 10043}, {ESOCKTNOSUPPORT, 10044},
    {EOPNOTSUPP, 10045},   {EPFNOSUPPORT, 10046},    {EAFNOSUPPORT, 10047},
    {EADDRINUSE, 10048},   {EADDRNOTAVAIL, 10049},   {ENETDOWN, 10050},
    {ENETUNREACH, 10051},  {ENETRESET, 10052},       {ECONNABORTED, 10053},
    {ECONNRESET, 10054},   {EPIPE, 10054},           {ENOBUFS, 10055},
    {ENOMEM, 10055},       {EISCONN, 10056},         {ENOTCONN, 10057},
    {ESHUTDOWN, 10058},    {ETOOMANYREFS, 10059},    {ETIMEDOUT, 10060},
    {ECONNREFUSED, 10061}, {ELOOP, 10062},           {ENAMETOOLONG, 10063},
    {EHOSTDOWN, 10064},    {EHOSTUNREACH, 10065},    {ENOTEMPTY, 10066},
    {EUSERS, 10068},       {EDQUOT, 10069},          {ESTALE, 10070},
    {EREMOTE, 10071},
};

// getaddrinfo code -> Windows Sockets number (the numbers its Windows counterpart returns).
constexpr Mapping kResolverTable[] = {
    {EAI_NONAME, 11001},     {EAI_AGAIN, 11002},    {EAI_FAIL, 11003},     {EAI_NODATA, 11004},
    {EAI_ADDRFAMILY, 11004}, {EAI_MEMORY, 10055},   {EAI_FAMILY, 10047},   {EAI_SOCKTYPE, 10044},
    {EAI_SERVICE, 10109},    {EAI_BADFLAGS, 10022}, {EAI_OVERFLOW, 10022},
};

constexpr int32_t kUnknownErrno = 10022;
constexpr int32_t kUnknownResolverCode = 11003;

template <size_t N>
int32_t Look(const Mapping (&table)[N], int from, int32_t otherwise) {
  for (const Mapping& mapping : table) {
    if (mapping.from == from) return mapping.to;
  }
  return otherwise;
}

}  // namespace

int32_t WsaErrorFromErrno(int errno_value) {
  if (errno_value == 0) return 0;
  return Look(kErrnoTable, errno_value, kUnknownErrno);
}

int32_t WsaErrorFromResolver(int eai_code, int errno_value) {
  if (eai_code == 0) return 0;
  if (eai_code == EAI_SYSTEM) {
    return errno_value == 0 ? kUnknownResolverCode : WsaErrorFromErrno(errno_value);
  }
  return Look(kResolverTable, eai_code, kUnknownResolverCode);
}

}  // namespace pelmora::net_internal

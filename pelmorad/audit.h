// The audit trail: one line per request on standard error, in a form journald keeps as it is:
//
//   audit client=127.0.0.1:40312 account=operator code=9 path="C:\Data\old.txt" result=0
//
// (journald adds the time; AuditLine also starts with the UTC time for plain log files). Texts
// are quoted with control characters escaped, so a client cannot forge a line. Passwords are
// never passed in.
#ifndef PELMORAD_AUDIT_H_
#define PELMORAD_AUDIT_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace pelmorad {

// One audited event.
struct AuditEntry {
  std::string client;   // address:port
  std::string account;  // "" before login
  int code = -1;        // request code; -1 for session events (login, close)
  std::string path;     // the request's path or paths, or the event's name
  int32_t result = 0;   // 0 or the error number answered
};

// The line for `entry`, without a line end: "<UTC time> audit client=... result=N".
std::string AuditLine(const AuditEntry& entry);

// Writes AuditLine(entry) and a line end to standard error in one write. Thread-safe.
void Audit(const AuditEntry& entry);

// The current time formatted with strftime `pattern`, in UTC or in local time.
std::string FormatNow(const char* pattern, bool utc);

// Writes a service message ("pelmorad: ...") to standard error. Thread-safe.
void ServiceMessage(std::string_view text);

}  // namespace pelmorad

#endif  // PELMORAD_AUDIT_H_

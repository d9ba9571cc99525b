// What the tests of the service's TLS listeners share: logging a library client in over TLS.
#ifndef TESTS_SERVICE_TLS_LOGIN_H_
#define TESTS_SERVICE_TLS_LOGIN_H_

#include <string>
#include <string_view>

#include "pelmora/admin/rcfso.h"
#include "pelmora/net/tls_client.h"

namespace pelmorad::testing {

// Connects `fso` with the TLS `settings` to `host`:`port` and logs `user` in; whether it did.
inline bool LogIn(pelmora::admin::RCFSO& fso, const pelmora::TlsClientSettings& settings, int port,
                  std::string_view user, std::string_view password,
                  const std::string& host = "127.0.0.1") {
  fso.set_tls(settings);
  return fso.Connect(host, port, user, password, false);
}

}  // namespace pelmorad::testing

#endif  // TESTS_SERVICE_TLS_LOGIN_H_

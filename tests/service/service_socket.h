// The service's own end of a test's TCP connection, reached through a copy of its descriptor
// (pidfd_getfd), so that a test can read the socket options the service set on it. Needs root.
//
//   EXPECT_EQ(ServiceSideTcpOption(service.pid(), LocalPort(client.fd()), TCP_NODELAY), 1);
#ifndef TESTS_SERVICE_SERVICE_SOCKET_H_
#define TESTS_SERVICE_SERVICE_SOCKET_H_

#include <sys/types.h>

#include <cstdint>
#include <optional>

namespace pelmorad::testing {

// The local port of the connected socket `fd`.
uint16_t LocalPort(int fd);

// The value of the TCP socket option `name` on the end of the connection whose peer is the local
// port `client_port`, held by process `service` or one of its children (the account workers);
// nullopt when none of them holds such a connection.
std::optional<int> ServiceSideTcpOption(pid_t service, uint16_t client_port, int name);

}  // namespace pelmorad::testing

#endif  // TESTS_SERVICE_SERVICE_SOCKET_H_

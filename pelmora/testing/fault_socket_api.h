// A socket layer that fails chosen calls, for testing the error paths of the network classes.
//
// FaultSocketApi passes every call to an inner layer (the system's by default) and counts the
// calls of each kind. Armed faults make the Nth call of a kind fail with a chosen errno without
// reaching the inner layer, or let the Nth send take only part of its bytes:
//
//   auto api = std::make_shared<FaultSocketApi>();
//   api->FailNext(SocketCall::kRecv, ECONNRESET);   // the next recv fails with ECONNRESET
//   api->ShortSend(api->Calls(SocketCall::kSend) + 1, 10);  // the next send takes 10 bytes
//   pelmora::WinSock socket(api);
#ifndef PELMORA_TESTING_FAULT_SOCKET_API_H_
#define PELMORA_TESTING_FAULT_SOCKET_API_H_

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "pelmora/net/internal/socket_api.h"

namespace pelmora::testing {

// The kinds of socket layer calls, one per SocketApi member.
enum class SocketCall {
  kSocket,
  kConnect,
  kBind,
  kListen,
  kAccept,
  kSend,
  kRecv,
  kPoll,
  kGetSockOpt,
  kSetSockOpt,
  kLocalEndpoint,
  kClose,
  kResolve,
  kHostName,
};

class FaultSocketApi final : public net_internal::SocketApi {
 public:
  explicit FaultSocketApi(
      std::shared_ptr<net_internal::SocketApi> inner = net_internal::SystemSocketApi());

  // The `nth` call of `kind` (1-based, counted since creation) fails with `error` (an errno;
  // an EAI_* code for kResolve) without reaching the inner layer.
  void FailCall(SocketCall kind, int nth, int error);
  // The next call of `kind` fails with `error`.
  void FailNext(SocketCall kind, int error) { FailCall(kind, Calls(kind) + 1, error); }
  // The `nth` send passes at most `max_bytes` of its bytes on.
  void ShortSend(int nth, size_t max_bytes);
  // Every send passes at most `max_bytes` on (0: no limit).
  void LimitEverySend(size_t max_bytes);
  // HostName reports `name` instead of asking the inner layer.
  void SetHostName(std::string name);

  // How many calls of `kind` were made so far (failed ones included).
  int Calls(SocketCall kind) const;
  // How many descriptors were closed through this layer.
  int Closes() const { return Calls(SocketCall::kClose); }

  net_internal::SocketResult Socket(int type, int protocol) override;
  net_internal::SocketResult Connect(int fd, const net_internal::Ipv4Endpoint& to) override;
  net_internal::SocketResult Bind(int fd, const net_internal::Ipv4Endpoint& at) override;
  net_internal::SocketResult Listen(int fd, int backlog) override;
  net_internal::SocketResult Accept(int fd, net_internal::Ipv4Endpoint* peer) override;
  net_internal::SocketResult Send(int fd, const void* data, size_t size, int flags) override;
  net_internal::SocketResult Recv(int fd, void* data, size_t size, int flags) override;
  net_internal::SocketResult Poll(int fd, short events, int timeout_ms) override;
  net_internal::SocketResult GetSockOpt(int fd, int level, int name, void* data,
                                        socklen_t* size) override;
  net_internal::SocketResult SetSockOpt(int fd, int level, int name, const void* data,
                                        socklen_t size) override;
  net_internal::SocketResult LocalEndpoint(int fd, net_internal::Ipv4Endpoint& at) override;
  net_internal::SocketResult Close(int fd) override;
  net_internal::SocketResult ResolveIPv4(const std::string& name) override;
  net_internal::SocketResult HostName(std::string& name) override;

 private:
  // Counts a call of `kind`; returns the armed error for it, if any.
  std::optional<int> Count(SocketCall kind);
  // How many bytes the send being made may pass on.
  size_t SendLimit(size_t size);

  std::shared_ptr<net_internal::SocketApi> inner_;
  mutable std::mutex mutex_;
  std::map<SocketCall, int> calls_;
  std::map<std::pair<SocketCall, int>, int> faults_;
  std::map<int, size_t> short_sends_;
  size_t every_send_limit_ = 0;
  std::optional<std::string> host_name_;
};

}  // namespace pelmora::testing

#endif  // PELMORA_TESTING_FAULT_SOCKET_API_H_

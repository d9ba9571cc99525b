// WinSock: one IPv4 socket with a blocking, synchronous programming model.
//
// A WinSock object connects as a client (RemoteHost, RemotePort, Connect) or listens and accepts as
// a server (LocalPort, Listen, Accept), sends a byte array (SendData) and receives a requested
// number of bytes with a time-out (GetData). Every wait happens on the calling thread; nothing runs
// in the background. The remote administration client and the block message client are built on it.
//
//   pelmora::WinSock socket;
//   socket.SetRemoteHost("127.0.0.1");
//   socket.SetRemotePort(8002);
//   socket.SetReceiveTimeout(5000);
//   socket.Connect();                                   // raises pelmora::Error on failure
//   std::vector<uint8_t> request = {1, 2, 3};
//   if (socket.SendData(request) != pelmora::sckSuccess) { ... }
//   std::vector<uint8_t> reply;
//   int32_t e = socket.GetData(reply, 16);              // waits for 16 bytes, a close or 5 s
//   if (e != pelmora::sckSuccess) std::cerr << socket.GetErrorDescription(e);
//
// Error styles, fixed per member: the protocol and ReceiveTimeout setters, Connect, Listen and the
// argument test of GetData raise pelmora::Error (number = the error code itself, description =
// GetErrorDescription of it, empty source); GetData and SendData return the code (0 = success);
// GetSocketOption and SetSocketOption return false; Accept returns null. Socket failures keep their
// Windows Sockets numbers (10061 connection refused, 10060 timed out, 10054 reset, ...).
//
// One object is used by one thread at a time; no locks are taken.
#ifndef PELMORA_NET_WINSOCK_H_
#define PELMORA_NET_WINSOCK_H_

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "pelmora/platform/export.h"

namespace pelmora {

namespace net_internal {
class SocketApi;
struct SocketResult;
}  // namespace net_internal

// Transport chosen by WinSock::SetProtocol.
enum SckProtocolConstants : int32_t {
  sckTCPProtocol = 0,
  sckUDPProtocol = 1,
};

// How GetData hands the received bytes back.
enum SckDataTypeConstants : int32_t {
  sckString = 0,     // converted from the ANSI code page to a (UTF-8) string
  sckByteArray = 1,  // the bytes as they came
};

// Option levels of Get/SetSocketOption. Published names are IPPROTO_TCP and SOL_SOCKET; the C++
// names carry the "sck" prefix because the platform headers define the bare names as macros.
// WinSockConstants() lists every published name with its value.
enum SckOptionLevelConstants : int32_t {
  sckIPPROTO_TCP = 6,
  sckSOL_SOCKET = 65535,
};

// Option names of Get/SetSocketOption (published names without the "sck" prefix, see above).
enum SckOptionNameConstants : int32_t {
  sckSO_DEBUG = 1,
  sckSO_ACCEPTCONN = 2,
  sckSO_REUSEADDR = 4,
  sckSO_KEEPALIVE = 8,
  sckSO_DONTROUTE = 16,
  sckSO_BROADCAST = 32,
  sckSO_USELOOPBACK = 64,
  sckSO_LINGER = 128,
  sckSO_OOBINLINE = 256,
  sckSO_DONTLINGER = -129,
  sckSO_EXCLUSIVEADDRUSE = -5,
  sckSO_SNDBUF = 4097,
  sckSO_RCVBUF = 4098,
  sckSO_ERROR = 4103,
  sckSO_TYPE = 4104,
  sckSO_SNDTIMEO = 4101,
  sckSO_RCVTIMEO = 4102,
  sckTCP_NODELAY = 1,
};

// Result codes of GetData and SendData and numbers raised by WinSock. GetErrorDescription gives
// each one's text: 380 and 40014 have texts of their own, the others the system text or
// "Error: <n> (no description)".
enum SckErrorConstants : int32_t {
  sckSuccess = 0,
  sckInvalidPropertyValue = 380,
  sckGetNotSupported = 394,
  sckSetNotSupported = 383,
  sckOutOfMemory = 7,
  sckBadState = 40006,
  sckInvalidArg = 40014,
  sckUnsupported = 40018,
  sckInvalidOp = 40020,
  sckOutOfRange = 40021,
  sckWrongProtocol = 40026,
  sckOpCanceled = 10004,
  sckInvalidArgument = 10014,
  sckWouldBlock = 10035,
  sckInProgress = 10036,
  sckAlreadyComplete = 10037,
  sckNotSocket = 10038,
  sckMsgTooBig = 10040,
  sckPortNotSupported = 10043,
  sckAddressInUse = 10048,
  sckAddressNotAvailable = 10049,
  sckNetworkSubsystemFailed = 10050,
  sckNetworkUnreachable = 10051,
  sckNetReset = 10052,
  sckConnectAborted = 10053,
  sckConnectionReset = 10054,
  sckNoBufferSpace = 10055,
  sckAlreadyConnected = 10056,
  sckNotConnected = 10057,
  sckSocketShutdown = 10058,
  sckTimedout = 10060,
  sckConnectionRefused = 10061,
  sckNotInitialized = 10093,
  sckHostNotFound = 11001,
  sckHostNotFoundTryAgain = 11002,
  sckNonRecoverableError = 11003,
  sckNoData = 11004,
};

// One published enumeration member: its enumeration, its exact published name and its value.
struct PELMORA_API WinSockConstant {
  std::string_view enumeration;
  std::string_view name;
  int32_t value = 0;
};

// Every published member of the five enumerations above, in published order, with the exact
// published names ("sckSuccess", "SO_KEEPALIVE", "SOL_SOCKET"...): for late-bound callers.
PELMORA_API std::span<const WinSockConstant> WinSockConstants();

// The any-typed GetData buffer: nothing yet, a string (sckString) or a byte array (sckByteArray).
using WinSockBuffer = std::variant<std::monostate, std::string, std::vector<uint8_t>>;

class PELMORA_API WinSock {
 public:
  // A new object without a socket: handle -1, protocol TCP, receive time-out 0, Version "2.2",
  // LocalHost = this machine's name (empty when it cannot be fetched), LocalIP = its resolved
  // dotted address or "127.0.0.1". Resolving the local name may block briefly. Never raises.
  WinSock();
  // The same over a given socket layer (tests pass a fault-injecting one). `api` must not be null;
  // objects returned by Accept share it.
  explicit WinSock(std::shared_ptr<net_internal::SocketApi> api);
  // Closes the socket if the object holds one (a detached socket stays open).
  ~WinSock();
  WinSock(const WinSock&) = delete;
  WinSock& operator=(const WinSock&) = delete;
  // Moving hands the socket over; the moved-from object holds none.
  WinSock(WinSock&& other) noexcept;
  WinSock& operator=(WinSock&& other) noexcept;

  // --- Properties ---

  // Windows Sockets version, major and minor joined by "." ("2.2").
  const std::string& Version() const { return version_; }
  // Dotted IPv4 address of this machine, as found at creation.
  const std::string& LocalIP() const { return local_ip_; }
  // Name of this machine, as found at creation.
  const std::string& LocalHost() const { return local_host_; }
  // Port that Listen binds. Every value is stored as given (0, -5 and 70000 included); only its
  // low 16 bits are used, when Listen runs. Never raises.
  int32_t LocalPort() const { return local_port_; }
  void SetLocalPort(int32_t value) { local_port_ = value; }
  // Dotted address that the last Connect resolved ("" before any).
  const std::string& RemoteIP() const { return remote_ip_; }
  // Host name or dotted address that Connect uses, stored as given.
  const std::string& RemoteHost() const { return remote_host_; }
  void SetRemoteHost(std::string value) { remote_host_ = std::move(value); }
  // Port that Connect uses; stored as given like LocalPort.
  int32_t RemotePort() const { return remote_port_; }
  void SetRemotePort(int32_t value) { remote_port_ = value; }
  // Transport: sckTCPProtocol (default) or sckUDPProtocol. The setter raises 380
  // "Invalid property value" for any other value and keeps the old one.
  SckProtocolConstants protocol() const { return protocol_; }
  void SetProtocol(SckProtocolConstants value);
  // The socket handle (a file descriptor), -1 when there is none.
  int32_t SocketHandle() const { return handle_; }
  // Milliseconds that each wait of GetData lasts; 0 waits without limit. The setter raises 380
  // "Invalid property value" for a negative value and keeps the old one.
  int32_t ReceiveTimeout() const { return receive_timeout_; }
  void SetReceiveTimeout(int32_t value);

  // --- Operations ---

  // Closes any socket the object holds (Disconnect), then adopts `hSocket` unchecked.
  void Attach(int32_t hSocket);
  // Returns the handle and forgets it without closing it; the caller owns it from then on, with
  // every byte that GetData has not returned still in the socket (see SetReadAhead).
  int32_t Detach();
  // Reads a socket option into `OptVal`. SO_LINGER comes back as on/off in the low 16 bits and
  // linger seconds in the high 16 bits. False (OptVal untouched) with no socket (last error
  // 10057) or when the socket layer refuses (its number, e.g. 10042 for an unknown option).
  bool GetSocketOption(SckOptionLevelConstants Level, SckOptionNameConstants OptName,
                       int32_t& OptVal);
  // Writes a socket option. For SO_LINGER/SO_DONTLINGER only the low 16 bits of OptVal (on/off)
  // are taken, the current linger seconds are kept. False with no socket (10057) or on refusal.
  bool SetSocketOption(SckOptionLevelConstants Level, SckOptionNameConstants OptName,
                       int32_t OptVal);
  // Closes any socket, resolves RemoteHost (a dotted address, else a name look-up; IPv4 only),
  // sets RemoteIP and connects to RemoteHost:RemotePort. Blocks until the connection is made or
  // refused. Raises 10049 when the host is empty or cannot be resolved, 10043 for
  // sckUDPProtocol, 10061 when refused, 10060 on a connect time-out, other socket numbers as they
  // come; a failed Connect leaves no socket.
  void Connect();
  // Closes the socket if there is one; never fails.
  void Disconnect();
  // Receives `Size` bytes: waits (at most ReceiveTimeout ms each time, without limit when 0)
  // until all have come, the peer closes or an error occurs. Returns 0 when all came or the peer
  // closed; 10060 on a time-out; 10057 with no socket (Buffer untouched); otherwise the socket
  // number (10054 reset...). Bytes that came before a time-out or error are still delivered. The
  // buffer holds the bytes received, or `Size` zero bytes when none came. DataType sckByteArray
  // stores a byte array, sckString (default) the bytes read as ANSI text converted to UTF-8.
  // Raises 40014 when Size < 1 or DataType is neither 0 nor 1, and 7 when a buffer of Size bytes
  // cannot be allocated.
  int32_t GetData(WinSockBuffer& Buffer, int32_t Size, SckDataTypeConstants DataType = sckString);
  // GetData with DataType sckByteArray into a byte vector.
  int32_t GetData(std::vector<uint8_t>& Buffer, int32_t Size);
  // GetData with DataType sckString into a string.
  int32_t GetData(std::string& Buffer, int32_t Size);
  // Sends the whole array, blocking until every byte is handed to the socket layer. Returns 0 on
  // success, 10057 with no socket, otherwise the socket number (10054 when the peer has gone). An
  // empty array sends nothing and returns 0 (10057 without a socket).
  int32_t SendData(std::span<const uint8_t> Buffer);
  // "Invalid property value" for 380, the library's own text for 40014, the system text for
  // socket numbers, otherwise "Error: <n> (no description)".
  std::string GetErrorDescription(int32_t lErrNumber) const;
  // Closes any socket and listens on LocalPort of all local addresses (backlog 20). Raises the
  // socket number: 10048 when the port is in use, 10043 for sckUDPProtocol...
  void Listen();
  // Waits without limit for one incoming connection and returns it as a new object holding the
  // accepted socket. On failure returns null and closes this object's listening socket.
  std::unique_ptr<WinSock> Accept();

  // C++ only, not part of the automation interface: the code of the last failure (0 after a
  // success), as kept by every member above.
  int32_t LastError() const { return last_error_; }
  // C++ only: how many bytes the last GetData received (0 when none came, although its buffer
  // then holds Size zero bytes), and whether it ended because the peer had closed the connection.
  // Together they tell a block of real zero bytes from a close.
  int32_t LastReceivedCount() const { return last_received_; }
  bool LastReceiveReachedEnd() const { return peer_closed_; }
  // C++ only: lets GetData take up to 64 KiB from the system per receive and keep what it was not
  // asked for, for the next GetData (far fewer system calls for small reads). Off by default, so
  // that every byte GetData has not returned stays in the socket for whoever reads it next
  // (through SocketHandle or after Detach). Only an owner that never lets anyone else read the
  // socket may turn it on; Detach, Attach and Disconnect discard what was read ahead.
  void SetReadAhead(bool enabled) { read_ahead_enabled_ = enabled; }
  // C++ only: milliseconds that each wait of SendData for room in the socket may last before it
  // gives up with 10060 (each wait starts afresh, so only a send that makes no progress for that
  // long fails); 0, the default, waits without limit. Not a dispatched property: an owner that
  // bounds its replies (the administration client) bounds its own sends by the same time.
  void SetSendTimeout(int32_t milliseconds) { send_timeout_ = std::max(milliseconds, 0); }

 private:
  [[noreturn]] void Raise(int32_t number);
  void RaiseSocketError(int error);
  // True, with last error 10057, when the object holds no socket.
  bool RefusedWithoutSocket();
  int OpenSocket();
  int32_t ReceiveInto(uint8_t* out, int32_t size, int32_t& received);
  int32_t WaitReadable();
  int32_t WaitReady(short events, int32_t timeout_ms);
  net_internal::SocketResult ReceiveSome(uint8_t* out, size_t missing, bool& drained);
  net_internal::SocketResult FillReadAhead();
  size_t TakeReadAhead(uint8_t* out, size_t wanted);
  int32_t SendAll(std::span<const uint8_t> bytes);
  void DropReadAhead();

  std::shared_ptr<net_internal::SocketApi> api_;
  std::string version_ = "2.2";
  std::string local_host_ = "localhost";
  std::string local_ip_ = "127.0.0.1";
  int32_t local_port_ = 0;
  std::string remote_host_;
  std::string remote_ip_;
  int32_t remote_port_ = 0;
  int32_t handle_ = -1;
  SckProtocolConstants protocol_ = sckTCPProtocol;
  int32_t last_error_ = 0;
  int32_t receive_timeout_ = 0;
  int32_t send_timeout_ = 0;
  // Bytes received from the socket but not yet handed out: read_ahead_[read_pos_, read_end_).
  // Allocated at the first small GetData.
  std::unique_ptr<uint8_t[]> read_ahead_;
  size_t read_pos_ = 0;
  size_t read_end_ = 0;
  bool read_ahead_enabled_ = false;
  // How the last GetData ended (LastReceivedCount, LastReceiveReachedEnd).
  int32_t last_received_ = 0;
  bool peer_closed_ = false;
};

}  // namespace pelmora

#endif  // PELMORA_NET_WINSOCK_H_

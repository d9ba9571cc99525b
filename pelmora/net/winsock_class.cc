// The late-bound face of WinSock: creatable as "Pelmora.WinSock", members in interface order.
//
// Raised errors keep their numbers and descriptions and get "Pelmora.WinSock" as their source.
// GetData's Buffer is any-typed and by reference: it receives a String (sckString, the default)
// or a Byte() (sckByteArray), and is left as it was when nothing was stored (no socket).
// SendData takes a byte array (a Byte() or an array of numbers 0-255); a String is refused with
// 13 "Type mismatch", as an automation caller gets when passing text for a Byte() argument.
#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "pelmora/automation/class_binder.h"
#include "pelmora/common/error.h"
#include "pelmora/common/variant.h"
#include "pelmora/net/winsock.h"

namespace pelmora {
namespace {

using automation::ClassBinder;
using automation::ClassRegistrar;

int32_t GetDataByName(WinSock& socket, Variant& Buffer, int32_t Size, int32_t& DataType) {
  WinSockBuffer received;
  int32_t result = socket.GetData(received, Size, static_cast<SckDataTypeConstants>(DataType));
  if (auto* text = std::get_if<std::string>(&received)) {
    Buffer = Variant(std::move(*text));
  } else if (auto* bytes = std::get_if<std::vector<uint8_t>>(&received)) {
    Buffer = Variant(std::move(*bytes));
  }
  return result;
}

int32_t SendDataByName(WinSock& socket, Variant& Buffer) {
  if (Buffer.Type() == VariantType::kString) throw RuntimeError(13);
  return socket.SendData(Buffer.ToBytes());
}

const ClassRegistrar kWinSockClass(
    ClassBinder<WinSock>("Pelmora.WinSock")
        .Property("Version", &WinSock::Version)
        .Property("LocalIP", &WinSock::LocalIP)
        .Property("LocalHost", &WinSock::LocalHost)
        .Property("LocalPort", &WinSock::LocalPort, &WinSock::SetLocalPort)
        .Property("RemoteIP", &WinSock::RemoteIP)
        .Property("RemoteHost", &WinSock::RemoteHost, &WinSock::SetRemoteHost)
        .Property("RemotePort", &WinSock::RemotePort, &WinSock::SetRemotePort)
        .Property("protocol", &WinSock::protocol, &WinSock::SetProtocol)
        .Property("SocketHandle", &WinSock::SocketHandle)
        .Property("ReceiveTimeout", &WinSock::ReceiveTimeout, &WinSock::SetReceiveTimeout)
        .Method("Attach", &WinSock::Attach)
        .Method("Detach", &WinSock::Detach)
        .Method("GetSocketOption", &WinSock::GetSocketOption)
        .Method("SetSocketOption", &WinSock::SetSocketOption)
        .Method("Connect", &WinSock::Connect)
        .Method("Disconnect", &WinSock::Disconnect)
        .Method("GetData", &GetDataByName, {Variant(int32_t{sckString})})
        .Method("SendData", &SendDataByName)
        .Method("GetErrorDescription", &WinSock::GetErrorDescription)
        .Method("Listen", &WinSock::Listen)
        .Method("Accept", &WinSock::Accept));

}  // namespace
}  // namespace pelmora

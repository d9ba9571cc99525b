// The late-bound face of SocketClient: creatable as "Pelmora.SocketClient".
//
// SendMessage takes a Byte() (or anything convertible to one); RecvMessage's aMsg and
// SendMessageWithReply's sRetMsg are by reference and receive a Byte() and a String. Raised
// errors (Connect's socket numbers, RecvMessage's 40014) get "Pelmora.SocketClient" as their
// source.
#include <cstdint>
#include <string>
#include <vector>

#include "pelmora/automation/class_binder.h"
#include "pelmora/net/socket_client.h"

namespace pelmora {
namespace {

using automation::ClassBinder;
using automation::ClassRegistrar;

bool SendMessageByName(SocketClient& client, int32_t lMsgSize, const std::vector<uint8_t>& aMsg) {
  return client.SendMessage(lMsgSize, aMsg);
}

const ClassRegistrar kSocketClientClass(
    ClassBinder<SocketClient>("Pelmora.SocketClient")
        .Method("Connect", &SocketClient::Connect)
        .Method("Disconnect", &SocketClient::Disconnect)
        .Method("SendMessage", &SendMessageByName)
        .Method("RecvMessage", &SocketClient::RecvMessage)
        .Method("SendMessageWithReply", &SocketClient::SendMessageWithReply)
        .Method("getRemoteIP", &SocketClient::getRemoteIP)
        .Property("ErrDescription", &SocketClient::ErrDescription)
        .Property("ErrCode", &SocketClient::ErrCode)
        .Property("timeout", &SocketClient::timeout, &SocketClient::SetTimeout));

}  // namespace
}  // namespace pelmora

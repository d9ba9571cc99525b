// The late-bound face of WinINet: creatable as "Pelmora.WinINet", members in interface order,
// with the events Uploading (never raised) and Receiving, each with one Long `Size`.
//
// InputData, InputHdrs, DataType and HdrName are by reference as the interface declares them;
// Execute leaves an empty String in InputData for verbs other than PUT and POST. Cancel returns
// Empty. Raised errors keep their numbers and descriptions.
#include <cstdint>
#include <string>

#include "pelmora/automation/class_binder.h"
#include "pelmora/automation/event_source.h"
#include "pelmora/common/variant.h"
#include "pelmora/net/wininet.h"

namespace pelmora {
namespace {

using automation::ClassBinder;
using automation::ClassRegistrar;

// A WinINet with the event source that late-bound sinks connect to.
class WinINetObject : private WinINetEvents {
 public:
  WinINetObject() { inet.SetEventSink(this); }
  ~WinINetObject() override { inet.SetEventSink(nullptr); }
  WinINetObject(const WinINetObject&) = delete;
  WinINetObject& operator=(const WinINetObject&) = delete;

  WinINet inet;
  automation::EventSource events;

 private:
  void Uploading(int32_t Size) override { events.Raise("Uploading", Size); }
  void Receiving(int32_t Size) override { events.Raise("Receiving", Size); }
};

using O = WinINetObject;
using S = const std::string&;

const ClassRegistrar kWinINetClass(
    ClassBinder<O>("Pelmora.WinINet")
        .Property("hInternet", [](O& o) { return o.inet.hInternet(); })
        .Property(
            "ChunkSize", [](O& o) { return o.inet.ChunkSize(); },
            [](O& o, int32_t v) { o.inet.SetChunkSize(v); })
        .Property(
            "AccessType", [](O& o) { return o.inet.AccessType(); },
            [](O& o, int32_t v) { o.inet.SetAccessType(v); })
        .Property(
            "Proxy", [](O& o) { return o.inet.Proxy(); },
            [](O& o, std::string v) { o.inet.SetProxy(std::move(v)); })
        .Property(
            "RemoteHost", [](O& o) { return o.inet.RemoteHost(); },
            [](O& o, std::string v) { o.inet.SetRemoteHost(std::move(v)); })
        .Property(
            "RemotePort", [](O& o) { return o.inet.RemotePort(); },
            [](O& o, int16_t v) { o.inet.SetRemotePort(v); })
        .Property(
            "ReceiveTimeout", [](O& o) { return o.inet.ReceiveTimeout(); },
            [](O& o, int32_t v) { o.inet.SetReceiveTimeout(v); })
        .Property(
            "IgnoreCertDate", [](O& o) { return o.inet.IgnoreCertDate(); },
            [](O& o, bool v) { o.inet.SetIgnoreCertDate(v); })
        .Property(
            "IgnoreCertCommonName", [](O& o) { return o.inet.IgnoreCertCommonName(); },
            [](O& o, bool v) { o.inet.SetIgnoreCertCommonName(v); })
        .Property(
            "NoCookies", [](O& o) { return o.inet.NoCookies(); },
            [](O& o, bool v) { o.inet.SetNoCookies(v); })
        .Property(
            "NoCookiesDialog", [](O& o) { return o.inet.NoCookiesDialog(); },
            [](O& o, bool v) { o.inet.SetNoCookiesDialog(v); })
        .Property(
            "protocol", [](O& o) { return o.inet.protocol(); },
            [](O& o, int32_t v) { o.inet.SetProtocol(v); })
        .Property(
            "Document", [](O& o) { return o.inet.Document(); },
            [](O& o, std::string v) { o.inet.SetDocument(std::move(v)); })
        .Property(
            "URL", [](O& o) { return o.inet.URL(); }, [](O& o, S v) { o.inet.SetURL(v); })
        .Method("UploadFile",
                [](O& o, S FileName, int32_t Start, int32_t Length, S URL,
                   std::string& InputHdrs) {
                  return o.inet.UploadFile(FileName, Start, Length, URL, InputHdrs);
                },
                {Variant(int32_t{0}), Variant(int32_t{0}), Variant(""), Variant("")})
        .Method("Execute",
                [](O& o, S URL, S Operation, Variant& InputData, std::string& InputHdrs) {
                  o.inet.Execute(URL, Operation, InputData, InputHdrs);
                },
                {Variant(""), Variant(""), Variant(), Variant("")})
        .Method("OpenURL",
                [](O& o, S URL, int32_t& DataType) { return o.inet.OpenURL(URL, DataType); },
                {Variant(""), Variant(int32_t{icString})})
        .Method("Cancel",
                [](O& o) {
                  o.inet.Cancel();
                  return Variant();
                })
        .Method("GetResponse",
                [](O& o, int32_t& DataType) { return o.inet.GetResponse(DataType); },
                {Variant(int32_t{icString})})
        .Method("GetChunk",
                [](O& o, int32_t Size, int32_t& DataType) {
                  return o.inet.GetChunk(Size, DataType);
                },
                {Variant(int32_t{icString})})
        .Method("GetHeader", [](O& o, std::string& HdrName) { return o.inet.GetHeader(HdrName); },
                {Variant("")})
        .Events(&O::events));

}  // namespace
}  // namespace pelmora

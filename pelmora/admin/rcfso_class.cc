// The late-bound face of RCFSO: creatable as "Pelmora.RCFSO", with its events FSOError,
// FSODisconnect and CommandOutput (each one String by reference) delivered to connected sinks.
// The transport settings (Tls...) follow the interface members.
// GetFolderFiles returns a collection with Count and Item(i); GetFileInfo sets its second
// argument to a new RCFileInfo on success and leaves it as it was otherwise. GetFileMode sets its
// second argument (by reference) to the permission bits on success.
//
// Flags that travel as "TRUE"/"FALSE" take the caller's value as a 16-bit integer: a Boolean
// True is -1 and is sent as "TRUE"; any other value, also 1, is sent as "FALSE".
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "pelmora/admin/internal/tls_properties.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/automation/class_binder.h"
#include "pelmora/automation/conversion.h"
#include "pelmora/automation/event_source.h"

namespace pelmora::admin {
namespace {

using automation::ClassBinder;
using automation::ClassRegistrar;

// An RCFSO with the event source that late-bound sinks connect to.
class RCFSOObject : private RCFSOEvents {
 public:
  RCFSOObject() { fso.AddEventSink(this); }
  ~RCFSOObject() override { fso.RemoveEventSink(this); }
  RCFSOObject(const RCFSOObject&) = delete;
  RCFSOObject& operator=(const RCFSOObject&) = delete;

  RCFSO fso;
  automation::EventSource events;

 private:
  void FSOError(std::string& message) override { events.Raise("FSOError", message); }
  void FSODisconnect(std::string& message) override { events.Raise("FSODisconnect", message); }
  void CommandOutput(std::string& text) override { events.Raise("CommandOutput", text); }
};

using O = RCFSOObject;
using S = const std::string&;

AutomationBool Flag(int16_t raw) { return AutomationBool::FromRaw(raw); }


// RunCommand by name: `command` a String (a line for the service's shell) or an array of
// Strings (a program and its arguments, no shell); `input` bytes or a String (Empty: none). The
// output and the error output come back as byte arrays; a String input travels as UTF-8. Returns the shell status (0-255, 128 + N
// for signal N), -2 when the command's time-out ran out, -1 when the call failed (ErrCode and
// ErrDescription say why).
int32_t RunCommandByName(RCFSO& fso, const Variant& command, int32_t lTimeout,
                         const Variant& input, Variant& output, Variant& error_output) {
  RemoteCommand request{.timeout = lTimeout};
  if (command.IsArray()) {
    for (const Variant& item : command.ToArray().items) request.arguments.push_back(item.ToString());
  } else {
    request.command_line = command.ToString();
  }
  std::vector<uint8_t> input_bytes;
  if (input.Type() == VariantType::kString) {
    std::string text = input.ToString();  // UTF-8, as the command reads it
    input_bytes.assign(text.begin(), text.end());
  } else if (!input.IsEmpty()) {
    input_bytes = input.ToBytes();
  }
  std::vector<uint8_t> out, err;
  RemoteCommandIo io;
  io.input = std::string_view(reinterpret_cast<const char*>(input_bytes.data()), input_bytes.size());
  io.output = [&out](std::span<const uint8_t> b) { out.insert(out.end(), b.begin(), b.end()); };
  io.error = [&err](std::span<const uint8_t> b) { err.insert(err.end(), b.begin(), b.end()); };
  ExecExit exit;
  bool ran = fso.RunCommand(request, io, exit);
  output = Variant(std::move(out));
  error_output = Variant(std::move(err));
  if (!ran) return -1;
  return exit.outcome == ExecOutcome::kTimedOut ? -2 : exit.ShellStatus();
}

RCFSO& FsoOf(O& o) { return o.fso; }

const ClassRegistrar kRCFSOClass(
    internal::AddTlsProperties(ClassBinder<O>("Pelmora.RCFSO")
        .Method("Connect",
                [](O& o, S Host, int32_t lPort, S sUserName, S sPassword, bool bEncoded) {
                  return o.fso.Connect(Host, lPort, sUserName, sPassword, bEncoded);
                })
        .Method("Disconnect", [](O& o) { o.fso.Disconnect(); })
        .Property(
            "timeout", [](O& o) { return o.fso.timeout(); },
            [](O& o, int32_t value) { o.fso.set_timeout(value); })
        .Property("ErrCode", [](O& o) { return o.fso.ErrCode(); })
        .Property("ErrDescription", [](O& o) { return o.fso.ErrDescription(); })
        .Property(
            "LogPath", [](O& o) { return o.fso.LogPath(); },
            [](O& o, std::string value) { o.fso.SetLogPath(std::move(value)); })
        .Method("GetFileVersion", [](O& o, S sFileName) { return o.fso.GetFileVersion(sFileName); })
        .Method("GetPathWithKey", [](O& o, S sKey) { return o.fso.GetPathWithKey(sKey); })
        .Method("CopyRemoteFolder",
                [](O& o, S sExistingFolder, S sNewFolder, int16_t bOverWrite) {
                  return o.fso.CopyRemoteFolder(sExistingFolder, sNewFolder, Flag(bOverWrite));
                })
        .Method("CopyRemoteFile",
                [](O& o, S sExistingFile, S sNewFile, int16_t OverWriteFile) {
                  return o.fso.CopyRemoteFile(sExistingFile, sNewFile, Flag(OverWriteFile));
                })
        .Method("MoveRemoteFile",
                [](O& o, S sExistingFile, S sNewFile) {
                  return o.fso.MoveRemoteFile(sExistingFile, sNewFile);
                })
        .Method("CreateRemoteFile",
                [](O& o, S sRemoteFile, int16_t bOverWrite, int16_t bUnicodeCode) {
                  return o.fso.CreateRemoteFile(sRemoteFile, Flag(bOverWrite), Flag(bUnicodeCode));
                })
        .Method("CreateRemoteFolder",
                [](O& o, S sRemoteFolder) { return o.fso.CreateRemoteFolder(sRemoteFolder); })
        .Method("DeleteRemoteFile",
                [](O& o, S sRemoteFile) { return o.fso.DeleteRemoteFile(sRemoteFile); })
        .Method("DeleteRemoteFolder",
                [](O& o, S sRemoteFolder) { return o.fso.DeleteRemoteFolder(sRemoteFolder); })
        .Method("FolderExists",
                [](O& o, S sRemoteFolder) { return o.fso.FolderExists(sRemoteFolder); })
        .Method("FileExists", [](O& o, S sRemoteFile) { return o.fso.FileExists(sRemoteFile); })
        .Method("IsSameMachineWithSvr", [](O& o) { return o.fso.IsSameMachineWithSvr(); })
        .Method("GetSystemDirectory", [](O& o) { return o.fso.GetSystemDirectory(); })
        .Method("GetSystemTime", [](O& o) { return o.fso.GetSystemTime(); })
        .Method("GetPrintQ", [](O& o) { return o.fso.GetPrintQ(); })
        .Method("SyncCreateProcess",
                [](O& o, S command, int32_t lTimeout) {
                  return o.fso.SyncCreateProcess(command, lTimeout);
                })
        .Method("ExtendedCommandVersion", [](O& o) { return o.fso.ExtendedCommandVersion(); })
        .Method("GetFileMode",
                [](O& o, S sRemoteFile, int32_t& lMode) {
                  return o.fso.GetFileMode(sRemoteFile, lMode);
                })
        .Method("SetFileMode",
                [](O& o, S sRemoteFile, int32_t lMode) {
                  return o.fso.SetFileMode(sRemoteFile, lMode);
                })
        .Method("RunCommand",
                [](O& o, const Variant& command, int32_t lTimeout, const Variant& input,
                   Variant& output, Variant& error_output) {
                  return RunCommandByName(o.fso, command, lTimeout, input, output, error_output);
                })
        .Method("GetFolderFiles",
                [](O& o, S sRemoteFolder) {
                  return std::make_shared<RCFileInfoCollection>(
                      o.fso.GetFolderFiles(sRemoteFolder));
                })
        .Method("GetFileInfo",
                [](O& o, S sFileName, Variant& oFileInfo) {
                  RCFileInfo info;
                  if (!o.fso.GetFileInfo(sFileName, info)) return false;
                  oFileInfo = automation::ToVariant(std::make_shared<RCFileInfo>(std::move(info)));
                  return true;
                })
        .Method("Upload", [](O& o, S sLocalFile,
                             S sRemoteFile) { return o.fso.Upload(sLocalFile, sRemoteFile); })
        .Method("Download", [](O& o, S sLocalFile,
                               S sRemoteFile) { return o.fso.Download(sLocalFile, sRemoteFile); })
        .Method("getLocalIP", [](O& o) { return o.fso.getLocalIP(); })
        .Method("getRemoteIP", [](O& o) { return o.fso.getRemoteIP(); })
        .Method("getUpdatedServerFileToTempFolder",
                [](O& o, S sRemoteFile, std::string& sLocalFile) {
                  return o.fso.getUpdatedServerFileToTempFolder(sRemoteFile, sLocalFile);
                }),
                               &FsoOf)
        .Events(&O::events));

}  // namespace
}  // namespace pelmora::admin

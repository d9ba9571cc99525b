// The file and folder requests and the file mode requests.
#include "pelmora/admin/internal/file_requests.h"

#include <algorithm>
#include <string>

#include "pelmora/admin/internal/server_text.h"
#include "pelmora/admin/mode_wire.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/error_numbers.h"

namespace pelmora::admin::internal {
namespace {

std::string Flag(AutomationBool flag) { return std::string(FlagText(flag.Raw())); }

}  // namespace

bool FileRequests::ResultRequest(bool sent, const ResultLines& lines) {
  if (!sent) {
    LogFailure(channel_.HandlePrefix() + std::string(lines.send_fail), lines.module, lines.routine);
    return false;
  }
  const bool result = channel_.RecvResult();
  if (!lines.outcome.empty()) {
    Trace(channel_.HandlePrefix() + std::string(lines.outcome) + (result ? "True" : "False"),
          lines.module, lines.routine);
  }
  return result;
}

bool FileRequests::NameRequest(std::string_view name, std::string_view empty, RequestCode code,
                               const ResultLines& lines) {
  error_.Clear();
  if (!CheckArgument(error_, name, empty)) return false;
  return ResultRequest(channel_.SendRequestUnicode(name, Code(code)), lines);
}

bool FileRequests::CheckNames(std::string_view existing, std::string_view target,
                              std::string_view what) {
  const std::string kind(what);
  return CheckArgument(error_, existing, "Empty existign " + kind + " name") &&
         CheckArgument(error_, target, "Empty new " + kind + " name");
}

std::optional<std::string> FileRequests::ReceiveText(std::string_view routine, int32_t entry_type) {
  Channel::Bytes data;
  int32_t sequence = 0;
  if (!channel_.RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) {
    LogFailure(channel_.HandlePrefix() + "**Get data size fail", "RSFSO", routine, entry_type);
    return std::nullopt;
  }
  return DecodeWireText(data);
}

std::optional<std::string> FileRequests::ReceiveRawText(int32_t count, std::string_view routine,
                                                        std::string_view content_fail) {
  Channel::Bytes raw;
  const int32_t e = channel_.ReadRawBytes(count, raw);
  if (e != 0) {
    LogFailure(channel_.HandlePrefix() + std::string(content_fail), "RSFSO", routine);
    channel_.SetSocketError(e);
    return std::nullopt;
  }
  return DecodeWireText(raw);
}

std::string FileRequests::GetFileVersion(std::string_view file) {
  error_.Clear();
  if (!CheckArgument(error_, file, "Empty Filename")) return "";
  const std::string args[] = {std::string(file)};
  if (!channel_.SendRequestList(args, Code(RequestCode::kGetFileVersion))) {
    LogFailure(channel_.HandlePrefix() + "**Send request fail", "RSFSO", "GetFileVersion");
    return "";
  }
  Channel::Bytes data;
  int32_t sequence = 0;
  if (!channel_.RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) {
    LogFailure(channel_.HandlePrefix() + "**RecvMessage fail", "RSFSO", "GetFileVersion", 1);
    channel_.SetSocketError(error_.code());
    return "";
  }
  return DecodeWireText(data);
}

std::string FileRequests::GetPathWithKey(std::string_view key) {
  error_.Clear();
  const std::string prefix = channel_.HandlePrefix();
  Trace(prefix + "**GetPathWithKey " + std::string(key), "RSFSO", "GetPathWithKey");
  if (!CheckArgument(error_, key, "Empty key")) return "";
  const std::string args[] = {std::string(key)};
  if (!channel_.SendRequestList(args, Code(RequestCode::kGetPathWithKey))) {
    LogFailure(prefix + "**Send request fail", "RSFSO", "GetPathWithKey");
    return "";
  }
  const std::optional<int32_t> size = channel_.ReceiveSize();
  if (!size) {
    LogFailure(prefix + "**Get Data size fail", "RSFSO", "GetPathWithKey");
    return "";
  }
  if (*size < 1) return "";
  std::optional<std::string> path =
      ReceiveRawText(*size, "GetPathWithKey", "**Get Data content fail");
  if (!path) return "";
  Trace(prefix + "**Path =" + *path, "RSFSO", "GetPathWithKey");
  return *path;
}

std::string FileRequests::GetPrintQ() {
  error_.Clear();
  const std::string prefix = channel_.HandlePrefix();
  Trace(prefix + "**GetPrintQ", "RSFSO", "GetPrintQ");
  if (!channel_.SendRequestAnsi("", Code(RequestCode::kGetPrintQ))) {
    LogFailure(prefix + "**send request fail", "RSFSO", "GetPrintQ");
    return "";
  }
  const std::optional<int32_t> size = channel_.ReceiveSize();
  if (!size) {
    LogFailure(prefix + "**Get data size fail", "RSFSO", "GetPrintQ");
    return "";
  }
  Trace(prefix + "**Data size =" + std::to_string(*size), "RSFSO", "GetPrintQ");
  if (*size < 0) {
    error_.Set(errors::kInvalidDataSize, "Invalid data size");
    return "";
  }
  if (*size == 0) return "";
  return ReceiveRawText(*size, "GetPrintQ", "**Get data content fail").value_or("");
}

std::string FileRequests::GetSystemDirectory() {
  error_.Clear();
  if (!channel_.SendRequestAnsi("", Code(RequestCode::kGetSystemDirectory))) {
    LogFailure(channel_.HandlePrefix() + "**send request fail", "RSFSO", "GetSystemDirectory");
    return "";
  }
  return ReceiveText("GetSystemDirectory", 4).value_or("");
}

Date FileRequests::GetSystemTime() {
  error_.Clear();
  // These lines carry the routine name "GetSystemDirectory" and go to the error file.
  if (!channel_.SendRequestAnsi("", Code(RequestCode::kGetSystemTime))) {
    LogFailure(channel_.HandlePrefix() + "**send request fail", "RSFSO", "GetSystemDirectory", 1);
    return Date();
  }
  const std::optional<std::string> text = ReceiveText("GetSystemDirectory", 1);
  if (!text) return Date();
  const std::optional<Date> date = ParseServerDate(*text);
  if (!date) {
    error_.Set(13, "Type mismatch");
    return Date();
  }
  return *date;
}

bool FileRequests::IsSameMachineWithSvr() {
  error_.Clear();
  return ResultRequest(channel_.SendRequestAnsi("", Code(RequestCode::kIsSameMachineWithSvr)),
                       {"RSFSO", "IsSameMachineWithSvr", "**send request fail", ""});
}

bool FileRequests::FileExists(std::string_view file) {
  return NameRequest(file, "Empty remote file name", RequestCode::kFileExists,
                     {"RSFSO", "FileExists", "** Send request fail", "** FileExists "});
}

bool FileRequests::FolderExists(std::string_view folder) {
  return NameRequest(folder, "Empty remote folder name", RequestCode::kFolderExists,
                     {"RSFSO", "FolderExists", "** Send request fail", "** FolderExists "});
}

bool FileRequests::CreateRemoteFolder(std::string_view folder) {
  return NameRequest(
      folder, "Empty remote folder name", RequestCode::kCreateRemoteFolder,
      {"RFSO", "createremotefolder", "** send request fail", "** createremotefolder = "});
}

bool FileRequests::DeleteRemoteFile(std::string_view file) {
  return NameRequest(
      file, "Empty remote file name", RequestCode::kDeleteRemoteFile,
      {"RFSO", "DeleteRemoteFile", "** Send reqeust fail", "** DeleteRemoteFile = "});
}

bool FileRequests::DeleteRemoteFolder(std::string_view folder) {
  return NameRequest(
      folder, "Empty remote folder name", RequestCode::kDeleteRemoteFolder,
      {"RFSO", "DeleteRemoteFolder", "** send request fail", "** DeleteRemoteFolder = "});
}

bool FileRequests::CreateRemoteFile(std::string_view file, AutomationBool overwrite,
                                    AutomationBool unicode) {
  error_.Clear();
  if (!CheckArgument(error_, file, "Empty remote file name")) return false;
  const std::string args[] = {std::string(file), Flag(overwrite), Flag(unicode)};
  return ResultRequest(
      channel_.SendRequestList(args, Code(RequestCode::kCreateRemoteFile)),
      {"RFSO", "CreateRemoteFile", "** Send request fail", "** CreateRemoteFile = "});
}

bool FileRequests::CopyRequest(std::string_view existing, std::string_view target,
                               AutomationBool overwrite, std::string_view what, RequestCode code,
                               const ResultLines& lines) {
  error_.Clear();
  if (!CheckNames(existing, target, what)) return false;
  const std::string args[] = {std::string(existing), std::string(target), Flag(overwrite)};
  return ResultRequest(channel_.SendRequestList(args, Code(code)), lines);
}

bool FileRequests::CopyRemoteFile(std::string_view existing, std::string_view target,
                                  AutomationBool overwrite) {
  return CopyRequest(existing, target, overwrite, "file", RequestCode::kCopyRemoteFile,
                     {"RFSO", "CopyRemoteFile", "** send request fail", "** CopyRemoteFile = "});
}

bool FileRequests::CopyRemoteFolder(std::string_view existing, std::string_view target,
                                    AutomationBool overwrite) {
  return CopyRequest(
      existing, target, overwrite, "folder", RequestCode::kCopyRemoteFolder,
      {"RFSO", "Copyremotefolder", "** Send request fail", "** Copyremotefolder = "});
}

bool FileRequests::MoveRemoteFile(std::string_view existing, std::string_view target) {
  error_.Clear();
  if (!CheckNames(existing, target, "file")) return false;
  return ResultRequest(
      channel_.SendRequestTwo(existing, target, Code(RequestCode::kMoveRemoteFile)),
      {"RFSO", "MoveRemoteFile", "** send request fail", "** MoveRemoteFile = "});
}

bool FileRequests::GetFileMode(std::string_view file, int32_t& mode) {
  error_.Clear();
  if (!CheckArgument(error_, file, "Empty remote file name")) return false;
  if (!channel_.SendRequest(kModeGetCode, ModeArguments(file, std::nullopt))) return false;
  if (!channel_.RecvResult()) return false;
  mode = std::clamp(error_.code(), 0, kModePermissionBits);
  error_.Clear();
  return true;
}

bool FileRequests::SetFileMode(std::string_view file, int32_t mode) {
  error_.Clear();
  if (!CheckArgument(error_, file, "Empty remote file name")) return false;
  if ((mode & ~kModePermissionBits) != 0) {
    error_.Set(87, "The parameter is incorrect.");
    return false;
  }
  if (!channel_.SendRequest(kModeSetCode, ModeArguments(file, mode))) return false;
  return channel_.RecvResult();
}

}  // namespace pelmora::admin::internal

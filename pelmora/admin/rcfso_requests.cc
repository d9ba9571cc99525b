// RCFSO's remote file and folder requests: one request block, then the request's own reply (a
// result reply, a text message, or a size message followed by raw text).
#include <string>

#include "pelmora/admin/internal/server_text.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/error_numbers.h"

namespace pelmora::admin {
namespace {

std::string_view TrimBlanks(std::string_view text) {
  const size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string Flag(AutomationBool flag) { return std::string(FlagText(flag.Raw())); }

int16_t Code(RequestCode code) { return static_cast<int16_t>(code); }

}  // namespace

bool RCFSO::CheckArgument(std::string_view value, std::string_view description) {
  if (!TrimBlanks(value).empty()) return true;
  SetError(errors::kEmptyArgument, std::string(description));
  return false;
}

bool RCFSO::ResultRequest(bool sent, std::string_view module, std::string_view routine,
                          std::string_view send_fail, std::string_view outcome) {
  if (!sent) {
    LogFailure(HandlePrefix() + std::string(send_fail), module, routine);
    return false;
  }
  const bool result = RecvResult();
  if (!outcome.empty()) {
    Trace(HandlePrefix() + std::string(outcome) + (result ? "True" : "False"), module, routine);
  }
  return result;
}

std::optional<std::string> RCFSO::ReceiveText(std::string_view routine, int32_t entry_type) {
  Bytes data;
  int32_t sequence = 0;
  if (!RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) {
    LogFailure(HandlePrefix() + "**Get data size fail", "RSFSO", routine, entry_type);
    return std::nullopt;
  }
  return DecodeWireText(data);
}

std::optional<int32_t> RCFSO::ReceiveSize() {
  Bytes data;
  int32_t sequence = 0;
  if (!RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) return std::nullopt;
  const std::optional<int32_t> size = ParseSizeMessage(data);
  if (!size) SetError(errors::kInvalidDataSize, "Invalid Data Size");
  return size;
}

std::optional<std::string> RCFSO::ReceiveRawText(int32_t count, std::string_view routine,
                                                 std::string_view content_fail) {
  Bytes raw;
  const int32_t e = ReadRawBytes(count, raw);
  if (e != 0) {
    LogFailure(HandlePrefix() + std::string(content_fail), "RSFSO", routine);
    SetSocketError(e);
    return std::nullopt;
  }
  return DecodeWireText(raw);
}

std::string RCFSO::GetFileVersion(std::string_view sFileName) {
  ClearError();
  if (!CheckArgument(sFileName, "Empty Filename")) return "";
  const std::string args[] = {std::string(sFileName)};
  if (!SendRequestList(args, Code(RequestCode::kGetFileVersion))) {
    LogFailure(HandlePrefix() + "**Send request fail", "RSFSO", "GetFileVersion");
    return "";
  }
  Bytes data;
  int32_t sequence = 0;
  if (!RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) {
    LogFailure(HandlePrefix() + "**RecvMessage fail", "RSFSO", "GetFileVersion", 1);
    err_description_ = socket_.GetErrorDescription(err_code_);
    return "";
  }
  return DecodeWireText(data);
}

std::string RCFSO::GetPathWithKey(std::string_view sKey) {
  ClearError();
  Trace(HandlePrefix() + "**GetPathWithKey " + std::string(sKey), "RSFSO", "GetPathWithKey");
  if (!CheckArgument(sKey, "Empty key")) return "";
  const std::string args[] = {std::string(sKey)};
  if (!SendRequestList(args, Code(RequestCode::kGetPathWithKey))) {
    LogFailure(HandlePrefix() + "**Send request fail", "RSFSO", "GetPathWithKey");
    return "";
  }
  const std::optional<int32_t> size = ReceiveSize();
  if (!size) {
    LogFailure(HandlePrefix() + "**Get Data size fail", "RSFSO", "GetPathWithKey");
    return "";
  }
  if (*size < 1) return "";
  std::optional<std::string> path =
      ReceiveRawText(*size, "GetPathWithKey", "**Get Data content fail");
  if (!path) return "";
  Trace(HandlePrefix() + "**Path =" + *path, "RSFSO", "GetPathWithKey");
  return *path;
}

std::string RCFSO::GetPrintQ() {
  ClearError();
  Trace(HandlePrefix() + "**GetPrintQ", "RSFSO", "GetPrintQ");
  if (!SendRequestAnsi("", Code(RequestCode::kGetPrintQ))) {
    LogFailure(HandlePrefix() + "**send request fail", "RSFSO", "GetPrintQ");
    return "";
  }
  const std::optional<int32_t> size = ReceiveSize();
  if (!size) {
    LogFailure(HandlePrefix() + "**Get data size fail", "RSFSO", "GetPrintQ");
    return "";
  }
  Trace(HandlePrefix() + "**Data size =" + std::to_string(*size), "RSFSO", "GetPrintQ");
  if (*size < 0) {
    SetError(errors::kInvalidDataSize, "Invalid data size");
    return "";
  }
  if (*size == 0) return "";
  return ReceiveRawText(*size, "GetPrintQ", "**Get data content fail").value_or("");
}

std::string RCFSO::GetSystemDirectory() {
  ClearError();
  if (!SendRequestAnsi("", Code(RequestCode::kGetSystemDirectory))) {
    LogFailure(HandlePrefix() + "**send request fail", "RSFSO", "GetSystemDirectory");
    return "";
  }
  return ReceiveText("GetSystemDirectory", 4).value_or("");
}

Date RCFSO::GetSystemTime() {
  ClearError();
  // These lines carry the routine name "GetSystemDirectory" and go to the error file.
  if (!SendRequestAnsi("", Code(RequestCode::kGetSystemTime))) {
    LogFailure(HandlePrefix() + "**send request fail", "RSFSO", "GetSystemDirectory", 1);
    return Date();
  }
  const std::optional<std::string> text = ReceiveText("GetSystemDirectory", 1);
  if (!text) return Date();
  const std::optional<Date> date = internal::ParseServerDate(*text);
  if (!date) {
    SetError(13, "Type mismatch");
    return Date();
  }
  return *date;
}

bool RCFSO::IsSameMachineWithSvr() {
  ClearError();
  return ResultRequest(SendRequestAnsi("", Code(RequestCode::kIsSameMachineWithSvr)), "RSFSO",
                       "IsSameMachineWithSvr", "**send request fail", "");
}

bool RCFSO::FileExists(std::string_view sRemoteFile) {
  ClearError();
  if (!CheckArgument(sRemoteFile, "Empty remote file name")) return false;
  return ResultRequest(SendRequestUnicode(sRemoteFile, Code(RequestCode::kFileExists)), "RSFSO",
                       "FileExists", "** Send request fail", "** FileExists ");
}

bool RCFSO::FolderExists(std::string_view sRemoteFolder) {
  ClearError();
  if (!CheckArgument(sRemoteFolder, "Empty remote folder name")) return false;
  return ResultRequest(SendRequestUnicode(sRemoteFolder, Code(RequestCode::kFolderExists)), "RSFSO",
                       "FolderExists", "** Send request fail", "** FolderExists ");
}

bool RCFSO::CreateRemoteFolder(std::string_view sRemoteFolder) {
  ClearError();
  if (!CheckArgument(sRemoteFolder, "Empty remote folder name")) return false;
  return ResultRequest(SendRequestUnicode(sRemoteFolder, Code(RequestCode::kCreateRemoteFolder)),
                       "RFSO", "createremotefolder", "** send request fail",
                       "** createremotefolder = ");
}

bool RCFSO::DeleteRemoteFile(std::string_view sRemoteFile) {
  ClearError();
  if (!CheckArgument(sRemoteFile, "Empty remote file name")) return false;
  return ResultRequest(SendRequestUnicode(sRemoteFile, Code(RequestCode::kDeleteRemoteFile)),
                       "RFSO", "DeleteRemoteFile", "** Send reqeust fail",
                       "** DeleteRemoteFile = ");
}

bool RCFSO::DeleteRemoteFolder(std::string_view sRemoteFolder) {
  ClearError();
  if (!CheckArgument(sRemoteFolder, "Empty remote folder name")) return false;
  return ResultRequest(SendRequestUnicode(sRemoteFolder, Code(RequestCode::kDeleteRemoteFolder)),
                       "RFSO", "DeleteRemoteFolder", "** send request fail",
                       "** DeleteRemoteFolder = ");
}

bool RCFSO::CreateRemoteFile(std::string_view sRemoteFile, AutomationBool bOverWrite,
                             AutomationBool bUnicodeCode) {
  ClearError();
  if (!CheckArgument(sRemoteFile, "Empty remote file name")) return false;
  const std::string args[] = {std::string(sRemoteFile), Flag(bOverWrite), Flag(bUnicodeCode)};
  return ResultRequest(SendRequestList(args, Code(RequestCode::kCreateRemoteFile)), "RFSO",
                       "CreateRemoteFile", "** Send request fail", "** CreateRemoteFile = ");
}

bool RCFSO::CopyRemoteFile(std::string_view sExistingFile, std::string_view sNewFile,
                           AutomationBool OverWriteFile) {
  ClearError();
  if (!CheckArgument(sExistingFile, "Empty existign file name") ||
      !CheckArgument(sNewFile, "Empty new file name")) {
    return false;
  }
  const std::string args[] = {std::string(sExistingFile), std::string(sNewFile),
                              Flag(OverWriteFile)};
  return ResultRequest(SendRequestList(args, Code(RequestCode::kCopyRemoteFile)), "RFSO",
                       "CopyRemoteFile", "** send request fail", "** CopyRemoteFile = ");
}

bool RCFSO::CopyRemoteFolder(std::string_view sExistingFolder, std::string_view sNewFolder,
                             AutomationBool bOverWrite) {
  ClearError();
  if (!CheckArgument(sExistingFolder, "Empty existign folder name") ||
      !CheckArgument(sNewFolder, "Empty new folder name")) {
    return false;
  }
  const std::string args[] = {std::string(sExistingFolder), std::string(sNewFolder),
                              Flag(bOverWrite)};
  return ResultRequest(SendRequestList(args, Code(RequestCode::kCopyRemoteFolder)), "RFSO",
                       "Copyremotefolder", "** Send request fail", "** Copyremotefolder = ");
}

bool RCFSO::MoveRemoteFile(std::string_view sExistingFile, std::string_view sNewFile) {
  ClearError();
  if (!CheckArgument(sExistingFile, "Empty existign file name") ||
      !CheckArgument(sNewFile, "Empty new file name")) {
    return false;
  }
  return ResultRequest(SendRequestTwo(sExistingFile, sNewFile, Code(RequestCode::kMoveRemoteFile)),
                       "RFSO", "MoveRemoteFile", "** send request fail", "** MoveRemoteFile = ");
}

}  // namespace pelmora::admin

// RCFSO's life cycle, session (Connect, Disconnect), properties and events. Every request member
// hands its work to the request family that carries it, over the channel RCFSO holds.
#include "pelmora/admin/rcfso.h"

#include <string>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/internal/channel.h"
#include "pelmora/admin/internal/command_requests.h"
#include "pelmora/admin/internal/file_requests.h"
#include "pelmora/admin/internal/listing_requests.h"
#include "pelmora/admin/internal/server_file_cache.h"
#include "pelmora/admin/internal/transfers.h"
#include "pelmora/common/error_numbers.h"
#include "pelmora/common/log.h"
#include "pelmora/common/system.h"

namespace pelmora::admin {
namespace {

using internal::CommandRequests;
using internal::FileRequests;
using internal::ListingRequests;
using internal::Trace;

// The receive time-out a new client starts with, in milliseconds.
constexpr int32_t kDefaultTimeout = 10000;
// The cache folder below the temporary folder.
constexpr std::string_view kCacheSubfolder = "Corvanta/Qelmark/Admin/2.0/RSOCache/";

}  // namespace

RCFSO::RCFSO()
    : channel_(std::make_unique<internal::Channel>(kDefaultTimeout)),
      cache_folder_(GetTempFolder() + std::string(kCacheSubfolder)) {
  LogLevel() = 3;
}

RCFSO::~RCFSO() = default;

// --- Session, properties and events ---

bool RCFSO::Connect(std::string_view Host, int32_t lPort, std::string_view sUserName,
                    std::string_view sPassword, bool bEncoded) {
  internal::ErrorState& error = channel_->error();
  error.Clear();
  if (sUserName.empty()) {
    error.Set(errors::kEmptyArgument, "Empty user name");
    return false;
  }
  if (sPassword.empty()) {
    error.Set(errors::kEmptyArgument, "Empty password ");
    return false;
  }
  const std::string user = bEncoded ? std::string(sUserName) : EncodeCredential(sUserName);
  const std::string password = bEncoded ? std::string(sPassword) : EncodeCredential(sPassword);
  return channel_->Open(Host, lPort) && channel_->LogIn(user, password);
}

void RCFSO::Disconnect() {
  channel_->error().Clear();
  const std::string handle = std::to_string(channel_->SocketHandle());
  Trace("(" + handle + ")Client Disconnected" + handle, "RSFSO", "Disconnect");
  channel_->Close();
}

void RCFSO::NotifyDisconnect(std::string message) {
  channel_->error().Clear();
  const std::string handle = std::to_string(channel_->SocketHandle());
  Trace("(" + handle + ")Client Disconnected" + handle, "RSFSO", "FSODIsconnect");
  channel_->events().Raise(&RCFSOEvents::FSODisconnect, message);
}

int32_t RCFSO::timeout() const { return channel_->timeout(); }
void RCFSO::set_timeout(int32_t value) { channel_->set_timeout(value); }
int32_t RCFSO::ErrCode() const { return channel_->error().code(); }
const std::string& RCFSO::ErrDescription() const { return channel_->error().description(); }
std::string RCFSO::LogPath() const { return LogRoot(); }
void RCFSO::SetLogPath(std::string value) { LogRoot() = std::move(value); }
const TlsClientSettings& RCFSO::tls() const { return channel_->tls(); }
void RCFSO::set_tls(TlsClientSettings value) { channel_->set_tls(std::move(value)); }
const std::string& RCFSO::PresentedFingerprint() const { return channel_->PresentedFingerprint(); }
void RCFSO::AddEventSink(RCFSOEvents* sink) { channel_->events().Add(sink); }
void RCFSO::RemoveEventSink(RCFSOEvents* sink) { channel_->events().Remove(sink); }
std::string RCFSO::getLocalIP() const { return channel_->LocalIP(); }
std::string RCFSO::getRemoteIP() const { return channel_->RemoteHost(); }

// --- Remote file and folder requests ---

std::string RCFSO::GetFileVersion(std::string_view sFileName) {
  return FileRequests(*channel_).GetFileVersion(sFileName);
}
std::string RCFSO::GetPathWithKey(std::string_view sKey) {
  return FileRequests(*channel_).GetPathWithKey(sKey);
}
bool RCFSO::CopyRemoteFolder(std::string_view sExistingFolder, std::string_view sNewFolder,
                             AutomationBool bOverWrite) {
  return FileRequests(*channel_).CopyRemoteFolder(sExistingFolder, sNewFolder, bOverWrite);
}
bool RCFSO::CopyRemoteFile(std::string_view sExistingFile, std::string_view sNewFile,
                           AutomationBool OverWriteFile) {
  return FileRequests(*channel_).CopyRemoteFile(sExistingFile, sNewFile, OverWriteFile);
}
bool RCFSO::MoveRemoteFile(std::string_view sExistingFile, std::string_view sNewFile) {
  return FileRequests(*channel_).MoveRemoteFile(sExistingFile, sNewFile);
}
bool RCFSO::CreateRemoteFile(std::string_view sRemoteFile, AutomationBool bOverWrite,
                             AutomationBool bUnicodeCode) {
  return FileRequests(*channel_).CreateRemoteFile(sRemoteFile, bOverWrite, bUnicodeCode);
}
bool RCFSO::CreateRemoteFolder(std::string_view sRemoteFolder) {
  return FileRequests(*channel_).CreateRemoteFolder(sRemoteFolder);
}
bool RCFSO::DeleteRemoteFile(std::string_view sRemoteFile) {
  return FileRequests(*channel_).DeleteRemoteFile(sRemoteFile);
}
bool RCFSO::DeleteRemoteFolder(std::string_view sRemoteFolder) {
  return FileRequests(*channel_).DeleteRemoteFolder(sRemoteFolder);
}
bool RCFSO::FolderExists(std::string_view sRemoteFolder) {
  return FileRequests(*channel_).FolderExists(sRemoteFolder);
}
bool RCFSO::FileExists(std::string_view sRemoteFile) {
  return FileRequests(*channel_).FileExists(sRemoteFile);
}
bool RCFSO::IsSameMachineWithSvr() { return FileRequests(*channel_).IsSameMachineWithSvr(); }
std::string RCFSO::GetSystemDirectory() { return FileRequests(*channel_).GetSystemDirectory(); }
Date RCFSO::GetSystemTime() { return FileRequests(*channel_).GetSystemTime(); }
std::string RCFSO::GetPrintQ() { return FileRequests(*channel_).GetPrintQ(); }
bool RCFSO::GetFileMode(std::string_view sRemoteFile, int32_t& lMode) {
  return FileRequests(*channel_).GetFileMode(sRemoteFile, lMode);
}
bool RCFSO::SetFileMode(std::string_view sRemoteFile, int32_t lMode) {
  return FileRequests(*channel_).SetFileMode(sRemoteFile, lMode);
}

// --- Listings, transfers and the cache ---

RCFileInfoCollection RCFSO::GetFolderFiles(std::string_view sRemoteFolder) {
  return ListingRequests(*channel_).GetFolderFiles(sRemoteFolder);
}
bool RCFSO::GetFileInfo(std::string_view sFileName, RCFileInfo& oFileInfo) {
  return ListingRequests(*channel_).GetFileInfo(sFileName, oFileInfo);
}
bool RCFSO::Upload(std::string_view sLocalFile, std::string_view sRemoteFile) {
  return internal::Transfers(*channel_).Upload(sLocalFile, sRemoteFile);
}
bool RCFSO::Download(std::string_view sLocalFile, std::string_view sRemoteFile) {
  return internal::Transfers(*channel_).Download(sLocalFile, sRemoteFile);
}

bool RCFSO::ResumeDownload(std::string_view sLocalFile, std::string_view sRemoteFile,
                           int32_t lExpectedSize, Date dExpectedLastWrite) {
  return internal::Transfers(*channel_).Resume(sLocalFile, sRemoteFile, lExpectedSize,
                                               dExpectedLastWrite);
}
bool RCFSO::getUpdatedServerFileToTempFolder(std::string_view sRemoteFile,
                                             std::string& sLocalFile) {
  return internal::ServerFileCache(*channel_, cache_folder_).Refresh(sRemoteFile, sLocalFile);
}

// --- Remote commands ---

bool RCFSO::SyncCreateProcess(std::string_view command, int32_t lTimeout) {
  return CommandRequests(*channel_).SyncCreateProcess(command, lTimeout);
}
int32_t RCFSO::ExtendedCommandVersion() {
  return CommandRequests(*channel_).ExtendedCommandVersion();
}
bool RCFSO::RunCommand(const RemoteCommand& command, RemoteCommandIo& io, ExecExit& exit) {
  return CommandRequests(*channel_).RunCommand(command, io, exit);
}

}  // namespace pelmora::admin

#include "tools/pelmora/admin_requests.h"

#include <limits>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"

namespace pelmora_tool {
namespace {

using pelmora::admin::RCFSO;
using pelmora::admin::RCFSOEvents;

// 0 when the last request succeeded, otherwise the session's error with kExitFailed.
int Checked(HostSession& session, bool ok) {
  return ok ? kExitOk : session.FailFromClient(kExitFailed);
}

// As Checked, naming `path` and what the server shows of it on failure.
int CheckedOnPath(HostSession& session, bool ok, const std::string& path,
                  const std::string& folder_hint = "", bool reading = true) {
  return ok ? kExitOk : session.FailOnPath(kExitFailed, path, folder_hint, reading);
}

// Prints `text` as one or more lines: a line end is added when it lacks one.
void WriteLines(HostSession& session, std::string text) {
  if (text.empty() || text.back() != '\n') text += '\n';
  session.Output().Write(text);
}

// Prints a text answer, or reports the session's error when the request failed.
int TextAnswer(HostSession& session, const std::string& text) {
  if (session.Fso().ErrCode() != 0) return session.FailFromClient(kExitFailed);
  WriteLines(session, text);
  return kExitOk;
}

// Whether a false existence answer means "not there" rather than a failed request.
bool MeansMissing(int32_t code) { return code == 0 || code == 2 || code == 3; }

}  // namespace

int Time(HostSession& session) {
  pelmora::Date now = session.Client().RemoteSystemTime();
  if (session.Client().ErrNumber() != 0) return session.FailFromClient(kExitFailed);
  WriteLines(session, now.Format("yyyy-mm-dd hh:nn:ss"));
  return kExitOk;
}

int AppRoot(HostSession& session, const std::string& product) {
  session.Client().SetProduct(product);
  try {
    WriteLines(session, session.Client().RemoteAppRootPath());
    return kExitOk;
  } catch (const pelmora::Error& e) {
    // An empty path after a failed request is the request's failure, not a missing path.
    if (session.Fso().ErrCode() != 0) return session.FailFromClient(kExitFailed);
    return session.Fail(kExitFailed, {e.Number(), e.Description()});
  }
}

int PathWithKey(HostSession& session, const std::string& key) {
  std::string path = session.Fso().GetPathWithKey(key);
  if (session.Fso().ErrCode() != 0) return session.FailFromClient(kExitFailed);
  if (path.empty()) {
    return session.Fail(kExitFailed, {0, "no path is registered under \"" + key + "\""});
  }
  WriteLines(session, path);
  return kExitOk;
}

int SystemDirectory(HostSession& session) {
  return TextAnswer(session, session.Fso().GetSystemDirectory());
}

int PrintQueue(HostSession& session) {
  std::string queues = session.Fso().GetPrintQ();
  if (session.Fso().ErrCode() != 0) return session.FailFromClient(kExitFailed);
  if (!queues.empty()) WriteLines(session, queues);
  return kExitOk;
}

int FileVersion(HostSession& session, const std::string& file) {
  return TextAnswer(session, session.Fso().GetFileVersion(file));
}

int SameMachine(HostSession& session) {
  if (session.Fso().IsSameMachineWithSvr()) {
    WriteLines(session, "yes");
    return kExitOk;
  }
  if (session.Fso().ErrCode() != 0) return session.FailFromClient(kExitFailed);
  WriteLines(session, "no");
  return kExitFailed;
}

int Exists(HostSession& session, const std::string& path) {
  RCFSO& fso = session.Fso();
  for (auto [test, kind] : {std::pair{&RCFSO::FileExists, "file"}, {&RCFSO::FolderExists, "folder"}}) {
    if ((fso.*test)(path)) {
      WriteLines(session, kind);
      return kExitOk;
    }
    if (!MeansMissing(fso.ErrCode())) return session.FailFromClient(kExitFailed);
  }
  WriteLines(session, "missing");
  return kExitFailed;
}

int Copy(HostSession& session, const std::string& source, const std::string& target,
         bool recursive, bool overwrite) {
  RCFSO& fso = session.Fso();
  if (recursive) return Checked(session, fso.CopyRemoteFolder(source, target, overwrite));
  if (fso.CopyRemoteFile(source, target, overwrite)) return kExitOk;
  // A folder copied without -r: say so; other failures stand as the service gave them.
  HostFailure failure{fso.ErrCode(), fso.ErrDescription()};
  if (failure.number < 10000 && fso.FolderExists(source)) {
    failure.detail = source + ": a folder: use cp -r";
  }
  return session.Fail(kExitFailed, failure);
}

int Move(HostSession& session, const std::string& source, const std::string& target) {
  return Checked(session, session.Fso().MoveRemoteFile(source, target));
}

int RemoveFile(HostSession& session, const std::string& path) {
  return CheckedOnPath(session, session.Fso().DeleteRemoteFile(path), path, "use rm -r");
}

int RemoveFolder(HostSession& session, const std::string& path) {
  return CheckedOnPath(session, session.Fso().DeleteRemoteFolder(path), path);
}

int MakeFolder(HostSession& session, const std::string& path) {
  return CheckedOnPath(session, session.Fso().CreateRemoteFolder(path), path, "", false);
}

namespace {

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

std::string Child(const std::string& folder, const std::string& name) {
  return !folder.empty() && IsSeparator(folder.back()) ? folder + name : folder + "\\" + name;
}

int RemoveFolderTree(HostSession& session, const std::string& folder, int depth) {
  if (depth > kMostFolderDepth) {
    HostFailure failure;
    failure.description =
        folder + ": folders deeper than " + std::to_string(kMostFolderDepth) + " levels";
    return session.Fail(kExitFailed, failure);
  }
  pelmora::admin::RCFileInfoCollection entries = session.Fso().GetFolderFiles(folder);
  if (session.Fso().ErrCode() != 0) return session.FailOnPath(kExitFailed, folder);
  for (const auto& entry : entries) {
    const std::string& name = entry->FileName();
    if (name == "." || name == "..") continue;
    std::string path = Child(folder, name);
    // A link (reparse point) is deleted itself, never what it points to.
    bool folder = (entry->FileAttribues() & 0x10) != 0 && (entry->FileAttribues() & 0x400) == 0;
    int status = folder ? RemoveFolderTree(session, path, depth + 1)
                     : CheckedOnPath(session, session.Fso().DeleteRemoteFile(path), path);
    if (status != kExitOk) return status;
  }
  return RemoveFolder(session, folder);
}

}  // namespace

int RemoveTree(HostSession& session, const std::string& path) {
  if (session.Fso().FolderExists(path)) return RemoveFolderTree(session, path, 1);
  return RemoveFile(session, path);
}

int MakeFolders(HostSession& session, const std::string& path) {
  // Each folder from the first below the drive's root ("C:\") down to `path` itself.
  for (size_t end = path.find_first_of("\\/", 3);; end = path.find_first_of("\\/", end + 1)) {
    std::string folder = path.substr(0, end);
    if (!folder.empty() && !IsSeparator(folder.back()) && !session.Fso().FolderExists(folder) &&
        MakeFolder(session, folder) != kExitOk) {
      return kExitFailed;
    }
    if (end == std::string::npos) return kExitOk;
  }
}

int Touch(HostSession& session, const std::string& path, bool unicode) {
  if (session.Fso().FileExists(path)) return kExitOk;
  return CheckedOnPath(session, session.Fso().CreateRemoteFile(path, false, unicode), path, "",
                       false);
}

}  // namespace pelmora_tool

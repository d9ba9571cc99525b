#include "tools/pelmora/admin_requests.h"

#include <limits>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"

namespace pelmora_tool {
namespace {

using pelmora::admin::RCFSO;
using pelmora::admin::RCFSOEvents;

constexpr int32_t kCommandMargin = 1000;  // the session waits this much past the command
constexpr int32_t kOverflow = 6;
constexpr int32_t kSocketTimeOut = 10060;

// Passes each piece of a remote command's output on as it arrives.
class OutputForwarder : public RCFSOEvents {
 public:
  OutputForwarder(RCFSO& fso, HostOutput& output) : fso_(fso), output_(output) {
    fso_.AddEventSink(this);
  }
  ~OutputForwarder() override { fso_.RemoveEventSink(this); }
  OutputForwarder(const OutputForwarder&) = delete;
  OutputForwarder& operator=(const OutputForwarder&) = delete;
  void CommandOutput(std::string& text) override { output_.Write(text); }

 private:
  RCFSO& fso_;
  HostOutput& output_;
};

// The exit status for a command that did not end normally, by the session's error.
int CommandStatus(int32_t code) {
  switch (code) {
    case 9001:
      return kExitNotStarted;
    case 9002:
      return kExitAbnormal;
    case 9003:
    case kSocketTimeOut:
      return kExitTimedOut;
    default:
      return code >= 10000 && code < 12000 ? kExitConnect : kExitFailed;
  }
}

// A command under the caller's own account: the session waits for the command's time-out plus
// a margin, as the built-in account's call does, and gets its own time-out back afterwards.
bool RunUnderAccount(HostSession& session, const std::string& command_line, int32_t timeout_ms) {
  RCFSO& fso = session.Fso();
  const int32_t kept = fso.timeout();
  fso.set_timeout(timeout_ms + kCommandMargin);
  bool ended = fso.SyncCreateProcess(command_line, timeout_ms);
  fso.set_timeout(kept);
  return ended;
}

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

int Exec(HostSession& session, const std::string& command_line, int32_t timeout_ms) {
  if (timeout_ms < 0 || timeout_ms > std::numeric_limits<int32_t>::max() - kCommandMargin) {
    return session.Fail(kExitUsage, {kOverflow, std::string(pelmora::RuntimeErrorText(kOverflow)
                                                                .value_or("Overflow"))});
  }
  OutputForwarder forwarder(session.Fso(), session.Output());
  bool ended = false;
  if (session.Secrets().account.empty()) {
    std::string collected;
    int32_t exit_code = 0;
    ended = session.Client().RemoteCommandCall(command_line, timeout_ms,
                                               session.Secrets().access_code, collected, exit_code);
    // A refused access code records nothing and sends nothing.
    if (!ended && session.Client().ErrNumber() == 0) {
      return session.Fail(kExitUsage, {0, "the command access code was refused"});
    }
  } else {
    ended = RunUnderAccount(session, command_line, timeout_ms);
  }
  if (ended) return kExitOk;
  return session.FailFromClient(CommandStatus(session.Fso().ErrCode()));
}

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
    failure.description += " (" + source + ": a folder: use cp -r)";
  }
  return session.Fail(kExitFailed, failure);
}

int Move(HostSession& session, const std::string& source, const std::string& target) {
  return Checked(session, session.Fso().MoveRemoteFile(source, target));
}

int RemoveFile(HostSession& session, const std::string& path) {
  return CheckedOnPath(session, session.Fso().DeleteRemoteFile(path), path, "use rmdir");
}

int RemoveFolder(HostSession& session, const std::string& path) {
  return CheckedOnPath(session, session.Fso().DeleteRemoteFolder(path), path);
}

int MakeFolder(HostSession& session, const std::string& path) {
  return CheckedOnPath(session, session.Fso().CreateRemoteFolder(path), path, "", false);
}

int Touch(HostSession& session, const std::string& path, bool unicode) {
  if (session.Fso().FileExists(path)) return kExitOk;
  return CheckedOnPath(session, session.Fso().CreateRemoteFile(path, false, unicode), path, "",
                       false);
}

}  // namespace pelmora_tool

// This machine's side of a download or upload in the tool: the part file a download is written
// to before it takes its target's name, the modes new files get, and local failures named by
// path with the system's text (never blamed on the host).
//
//   PartFile part;
//   if (int status = part.CreateFor(session, "/srv/app.log", "app.log"); status != kExitOk)
//     return status;
//   if (session.Fso().Download(part.Path(), remote) && part.Deliver() == 0) ...
#ifndef TOOLS_PELMORA_PART_FILE_H_
#define TOOLS_PELMORA_PART_FILE_H_

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "pelmora/admin/rc_file_info.h"
#include "tools/pelmora/admin_session.h"

namespace pelmora_tool {

// The size of the local file `path`, 0 when it cannot be read.
uint64_t LocalSize(const std::string& path);

// A failure of this machine's files, named by path and the system's text; never the host's.
int FailLocal(HostSession& session, const std::string& what, const std::string& path, int error);

// This process's umask, read without changing it, since other hosts' threads may be creating
// files at the same time.
mode_t Umask();

// The mode new files get: 0666 less the umask.
mode_t NewFileMode();

// Why `path` holds fewer bytes than `expected` (or is gone: Download removes a file it could not
// write): appends the missing count (as zeros) and returns the errno the system gives, or 0 when
// it takes them (then the remote file changed instead).
int ShortWriteCause(const std::string& path, uint64_t expected);

// Copies `from` into the existing non-regular file `to` (a device, a pipe), every write checked:
// 0, or the errno of the failure.
int CopyInto(const std::string& from, const std::string& to);

// Whether `target` is a device or a pipe, which a download writes in place at its end.
bool IsSpecial(const std::string& target);

// The file a download is written to before it reaches its target, removed unless delivered. A
// file target is written beside its final name and takes it only when complete, so a failure
// never leaves part of a file under that name; a device or a pipe is written in place at the end.
class PartFile {
 public:
  // Creates the part file for `target` (mode: the replaced file's, else a new file's); a
  // failure is reported on `session` and its status returned.
  // `to_output`: the file goes to the session's output instead, so it is made in the temporary
  // folder.
  int CreateFor(HostSession& session, const std::string& target, const std::string& name,
                bool to_output = false);
  // The part file for `target` under get -C: a fixed name beside it (.NAME.pelmora-part), made
  // when missing, so that what a failed or killed download received is found by the next get -C.
  int KeepFor(HostSession& session, const std::string& target, const std::string& name);
  ~PartFile();
  // The size and last-write second of the part file as KeepFor found it (0, 0 for a new one).
  int64_t KeptBytes() const { return resumable_ ? kept_.st_size : 0; }
  int64_t KeptSecond() const { return resumable_ ? kept_.st_mtim.tv_sec : 0; }

  // After a download that failed on the way, under get -C: leaves what came for the next get -C,
  // its last-write time set to the remote file's, so that a change of the remote file after
  // this shows whatever the two clocks say. An empty part is removed.
  void KeepForResume(const pelmora::admin::RCFileInfo& info);
  const std::string& Path() const { return path_; }

  // A new file takes the permission bits of the remote one, less the umask, as scp gives them; a
  // file it replaces keeps its own, and setuid, setgid and sticky bits are never given.
  void TakeRemoteMode(int32_t remote_mode);

  // Gives the complete file to its target: 0, or the errno of the failure.
  int Deliver();

  // Writes the complete file to `output`: 0, or the errno of reading it.
  int WriteTo(HostOutput& output) const;

 private:
  std::string path_;
  std::string target_;
  bool in_place_ = false;
  bool replaces_ = false;
  bool resumable_ = false;  // made by KeepFor
  struct stat kept_ {};
};

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_PART_FILE_H_

// The `pelmora admin` commands over listings, file information, transfers and the server-file
// cache, on one connected host. Like admin_requests.h, each writes its result to the session's
// output, reports a failure as the library's number and text, and returns the host's exit status.
// Transfers show their progress (bytes, rate, time left) when the output does.
//
//   if (session.Connect()) status = Get(session, "C:\\logs\\app.log", "");  // ./app.log
#ifndef TOOLS_PELMORA_ADMIN_TRANSFERS_H_
#define TOOLS_PELMORA_ADMIN_TRANSFERS_H_

#include <string>
#include <vector>

#include "pelmora/admin/rc_file_info.h"
#include "tools/pelmora/admin_session.h"

namespace pelmora_tool {

// The entries of a remote folder, one name a line, or with `long_form` their attributes
// ("drhsa" letters), size (with `human` as HumanSize gives it), last-write time and name; with
// `json` one line holding an array of the records Stat gives.
int ListFolder(HostSession& session, const std::string& folder, bool long_form,
               bool human = false, bool json = false);

// A size as ls -h shows it: bytes below 1024, else K, M, G, ... rounded up, with one decimal
// below 10 ("1023", "1.0K", "1.5K", "10K", "1.0M").
std::string HumanSize(int64_t size);

// One remote file's or folder's information, one field a line; with `json` one line holding a
// record: name, path, folder, type ("file" or "folder"), size, attributes (letters),
// attribute_bits, created, accessed, modified (the server's local time, yyyy-mm-ddThh:nn:ss).
int Stat(HostSession& session, const std::string& path, bool json = false);

// Downloads `remote` to `local`: "" means the remote file's name in the current folder, an
// existing folder (or a name ending in "/") receives the file under its remote name. In a fleet
// run each host's file goes to <local or .>/<host>/<name>. The file is written beside the target
// and renamed when complete (a device or pipe target is written once the whole file is here), so
// a failed download never leaves part of a file under the target's name. With `resume` a target
// that already has the remote file's size and last-write second is left as it is; otherwise the
// file is received into .NAME.pelmora-part beside the target, which a download that fails on the
// way (or is killed) leaves behind, and the next get with `resume` asks the service for the rest
// only when ResumesFrom allows it and the service has the download from an offset (else, and
// when the service finds the file changed, it downloads the whole file again). Local files that
// cannot be made or written give 2, named with the system's text.
int Get(HostSession& session, const std::string& remote, const std::string& local,
        bool resume = false);

// Whether a part file of `part_bytes` bytes last written at `part_second` (seconds since 1970,
// UTC) may be completed from the remote file `info` describes: it holds some bytes but fewer
// than the remote file, and the remote file was last written no later than the part (to the
// second): the remote file has not changed since the part was received. A failed download under
// get -C sets the part's last-write time to the remote file's, so this holds whatever the two
// clocks say; after a killed download it relies on the clocks agreeing.
bool ResumesFrom(int64_t part_bytes, int64_t part_second, const pelmora::admin::RCFileInfo& info);

// Uploads `local` to `remote`; a remote name ending in "\" or "/", or naming an existing folder,
// receives the local file under its own name.
int Put(HostSession& session, const std::string& local, const std::string& remote);

// Several files at once, as cp and scp take them: every source into the folder `target` (a
// remote one for PutAll, which must end in "\" or exist; a local one for GetAll, which must
// exist). Each file is tried; the status is the first failure's, else 0. With `recursive` a
// folder among the sources is copied with everything in it, as cp -r does: into the target
// folder under its own name when the target exists, else as the target (its folders made as
// needed, at most kMostFolderDepth deep).
int PutAll(HostSession& session, const std::vector<std::string>& sources, const std::string& target,
           bool recursive = false);
int GetAll(HostSession& session, const std::vector<std::string>& sources, const std::string& target,
           bool resume, bool recursive = false);

// Makes sure the local server-file cache holds the current `remote` and prints its local path.
int Fetch(HostSession& session, const std::string& remote);

// The "drhsa" letters of attribute bits (directory, read-only, hidden, system, archive); a link
// (reparse point, to a file or a folder) shows "l" in the first place.
std::string AttributeLetters(int32_t attributes);

// The local path a download lands at (see Get); `host` is "" outside fleet runs.
std::string DownloadTarget(const std::string& remote, const std::string& local,
                           const std::string& host);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_ADMIN_TRANSFERS_H_

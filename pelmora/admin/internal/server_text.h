// Readings of texts that the administration service sends about its own machine.
//
// The service runs on a Windows-style machine: its paths use drive letters, UNC names and either
// separator, and its clock comes as a short date-and-time text. Both are interpreted here purely
// lexically: the client's own file system and locale are never consulted.
//
//   NormaliseServerPath("C:\\Qel\\Program\\..\\..")       // "C:\\"
//   NormaliseServerPath("//srv/share/a/./b/../c")        // "\\\\srv\\share\\a\\c"
//   ParseServerDate("3/14/2009 8:05:09 PM")              // 2009-03-14 20:05:09
#ifndef PELMORA_ADMIN_INTERNAL_SERVER_TEXT_H_
#define PELMORA_ADMIN_INTERNAL_SERVER_TEXT_H_

#include <optional>
#include <string>
#include <string_view>

#include "pelmora/common/date.h"

namespace pelmora::admin::internal {

// The full form of a server path, as the server's own full-path function would give it for an
// absolute path: both '/' and '\' are separators and come out as '\'; repeated separators
// collapse; "." components vanish; ".." removes the previous component but never climbs above the
// root ("C:\", "\" or "\\server\share\"). A trailing separator is kept, and a result that is the
// bare root always ends in one. A relative path (no drive root, no leading separator) is
// normalised the same way and stays relative, since the server's current folder is unknown;
// ".." components that would climb above its start are kept. Never touches the file system.
std::string NormaliseServerPath(std::string_view path);

// The date of a server clock text, or nullopt when it is not a date. Accepted forms, with blanks
// and NUL characters around them ignored: "yyyy-mm-dd", "m/d/yyyy", either followed by a time
// "h:nn" or "h:nn:ss" in 24-hour form or with " AM"/" PM" (any case); a time alone is a time on
// the empty date. Two-digit years are not accepted.
std::optional<Date> ParseServerDate(std::string_view text);

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_SERVER_TEXT_H_

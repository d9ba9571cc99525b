// Readings of texts that the administration service sends about its own machine.
//
// The service runs on a Windows-style machine: its paths use drive letters, UNC names and either
// separator, and its clock comes as a short date-and-time text. Both are interpreted here
// lexically: the client's file system is never consulted, and its locale only for the order of
// day and month in a short date.
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

// Which of day and month a short date writes first.
enum class DayOrder { kMonthFirst, kDayFirst };

// The order of the short date of the locale the environment names for dates (LC_ALL, LC_TIME,
// LANG): day first when its date format puts the day before the month ("%d/%m/%Y", "%d.%m.%Y"),
// otherwise, and when no such locale is installed, month first (as the C locale's "%m/%d/%y").
DayOrder LocaleDayOrder();

// The date of a server clock text, or nullopt when it is not a date, read as the locale-aware
// conversion of the automation run-time reads a short date. Accepted forms, with blanks and NUL
// characters around them ignored: a date of three numbers joined by "/", "." or "-", either
// year first ("2009-03-14", "2009/03/14") or day and month first with a year of four or two
// digits last ("14/03/2009", "14.03.2009", "3/14/2009", "3/14/09": 00-29 are 2000-2029, 30-99
// 1930-1999); then optionally a time "h:nn" or "h:nn:ss" in 24-hour form or with " AM"/" PM" (any
// case). A time alone is a time on the empty date. Day and month come in `order` unless that
// gives no date and the other order does ("14/03/2009" is 14 March either way). The first
// overload uses LocaleDayOrder().
std::optional<Date> ParseServerDate(std::string_view text);
std::optional<Date> ParseServerDate(std::string_view text, DayOrder order);

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_SERVER_TEXT_H_

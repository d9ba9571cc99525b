// Text conversions between the library's strings and the bytes other systems expect.
//
// Strings inside the library and in its C++ interface are UTF-8. Where text meets an interface
// that expects the "system ANSI code page" (socket data read as a string, the administration
// protocol's ANSI arguments, archive names), it is converted here. The ANSI code page is one
// process-wide setting: Windows-1252 unless the environment variable PELMORA_ANSI_CODEPAGE names
// another (a number such as 1250 or 932, or an iconv name such as "WINDOWS-1251"), or a program
// calls SetAnsiCodePage. Characters with no equivalent in the target become "?".
//
//   std::string ansi = Utf8ToAnsi("Grüße");     // "Gr\xFC\xDF" + "e" in Windows-1252
//   std::string wire = Utf8ToUtf16Le("AB");      // "A\0B\0"
#ifndef PELMORA_COMMON_CODEPAGE_H_
#define PELMORA_COMMON_CODEPAGE_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "pelmora/platform/export.h"

namespace pelmora {

// Sets the process-wide ANSI code page by number (1252) or iconv name ("CP1252",
// "WINDOWS-1250", "UTF-8"). Returns false, changing nothing, when iconv does not know it.
PELMORA_API bool SetAnsiCodePage(std::string_view code_page);

// The iconv name of the ANSI code page in force ("CP1252" by default).
PELMORA_API std::string AnsiCodePage();

// ANSI bytes to UTF-8; a byte the code page does not define becomes "?".
PELMORA_API std::string AnsiToUtf8(std::string_view ansi);

// UTF-8 to ANSI bytes; a character without an equivalent (and any invalid UTF-8 byte) becomes "?".
PELMORA_API std::string Utf8ToAnsi(std::string_view utf8);

// UTF-8 to UTF-16LE bytes and back. Invalid input becomes U+FFFD (to UTF-16LE) and an unpaired
// surrogate or odd trailing byte becomes U+FFFD (to UTF-8).
PELMORA_API std::string Utf8ToUtf16Le(std::string_view utf8);
PELMORA_API std::string Utf16LeToUtf8(std::string_view utf16le);

// `utf8` with every letter in lower case, as names that compare without regard to case are
// compared: "ÉTÉ.txt" and "été.TXT" fold alike. Letters beyond ASCII fold by the
// Unicode case tables; invalid UTF-8 bytes stay as they are.
PELMORA_API std::string FoldCase(std::string_view utf8);

// Whether two UTF-8 texts are equal once folded (FoldCase).
PELMORA_API bool EqualsFolded(std::string_view a, std::string_view b);

// The number of UTF-16 code units that `utf8` takes: the length automation callers see.
PELMORA_API size_t Utf16Length(std::string_view utf8);

}  // namespace pelmora

#endif  // PELMORA_COMMON_CODEPAGE_H_

// The fixed file version of a Windows executable (a PE image: .exe, .dll, .sys, ...), read from
// the VS_FIXEDFILEINFO of its version resource, as the administration service answers the file
// version request:
//
//   std::string version = ReadFileVersion(fd);   // "10.0.19041.1" or "" for anything else
//
// Both functions walk the image's headers, section table and resource tree with every offset and
// count checked against the bytes that exist; a file that is not such an image, or has no
// version resource, gives "".
#ifndef PELMORAD_PE_VERSION_H_
#define PELMORAD_PE_VERSION_H_

#include <cstdint>
#include <span>
#include <string>

namespace pelmorad {

// The file version of the image held in `image` as "a.b.c.d" (the high and low words of
// dwFileVersionMS, then of dwFileVersionLS, in decimal), or "" when `image` is no PE image with a
// version resource. Never throws.
std::string ParseFileVersion(std::span<const uint8_t> image);

// As ParseFileVersion for the open file `fd`, reading only the headers and resource entries it
// needs with a few bounded pread calls (at most 64 KiB each, never the whole file). "" also when
// a read fails. Blocks for those reads.
std::string ReadFileVersion(int fd);

}  // namespace pelmorad

#endif  // PELMORAD_PE_VERSION_H_

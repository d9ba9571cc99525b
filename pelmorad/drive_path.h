// Drive-letter paths as the protocol carries them ("C:\Data\shop.ini", "d:/logs/"), parsed into a
// drive letter and normalised names before anything touches the file system.
//
//   PathResult parsed = ParseDrivePath("C:\\Data\\..\\shop.ini", 1024);
//   parsed.path->Relative();  // "shop.ini"
//   parsed.path->Wire();      // "C:\shop.ini"
#ifndef PELMORAD_DRIVE_PATH_H_
#define PELMORAD_DRIVE_PATH_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelmorad {

// A parsed path: a drive letter and the names below the drive's root, without ".", ".." or empty
// names. Names are compared as bytes (case-sensitive, as Linux does).
struct DrivePath {
  char drive = 'C';                // upper case
  std::vector<std::string> parts;  // empty for the drive's root

  bool IsRoot() const { return parts.empty(); }
  // The names joined with "/", or "." for the root: for openat2 beneath the drive's folder.
  std::string Relative() const;
  // The path in the protocol's form with "\" separators: "C:\Data\x", "C:\" for the root.
  std::string Wire() const;
  // The last name ("" for the root).
  std::string Name() const;
  // The folder that holds this path (the root is its own parent).
  DrivePath Parent() const;
  // A path one name further down.
  DrivePath Child(std::string_view name) const;
  // True when `other` is this path or lies beneath it.
  bool Contains(const DrivePath& other) const;
};

// The outcome of parsing: `path` when valid, otherwise `error` holds the reply's number.
struct PathResult {
  std::optional<DrivePath> path;
  int32_t error = 0;
};

// Parses `text` (UTF-8). Both "\" and "/" separate names, repeated separators count as one, "."
// names are dropped and ".." removes the name before it. Errors: 206 when `text` is longer than
// `max_length` bytes or a name is longer than 255 bytes; 123 when there is no "X:" drive prefix
// (relative names, UNC names such as \\server\share), when a control character (NUL included) or
// one of < > : " | ? * appears in a name; 5 when ".." would climb above the drive's root. Never
// throws; bounded by the length of `text`.
PathResult ParseDrivePath(std::string_view text, std::size_t max_length);

}  // namespace pelmorad

#endif  // PELMORAD_DRIVE_PATH_H_

// The file and folder requests as plain blocking functions over the drive table. Each returns 0
// on success or the Windows-style number the result reply carries (win_error.h). Every name is
// resolved beneath its drive's folder; none of them follows a link out of it.
//
//   int32_t error = CopyFile(drives, from, to, /*overwrite=*/false);  // 80 when `to` exists
#ifndef PELMORAD_FILE_OPS_H_
#define PELMORAD_FILE_OPS_H_

#include <cstdint>

#include "pelmorad/drives.h"

namespace pelmorad {

// Folders nested deeper than this are not copied (5).
inline constexpr int kMaxCopyDepth = 64;

// 0 when `path` is a file (anything but a folder); 2, 3 or 5 otherwise (a folder gives 2).
int32_t FileExists(const DriveTable& drives, const DrivePath& path);

// 0 when `path` is a folder; 2 (a file or nothing there), 3 or 5 otherwise.
int32_t FolderExists(const DriveTable& drives, const DrivePath& path);

// Creates an empty file; with `overwrite` an existing file is emptied, without it an existing
// one gives 80. With `unicode` the file starts with the UTF-16LE byte order mark FF FE. A folder
// at `path` gives 5, a missing folder on the way 3.
int32_t CreateFile(const DriveTable& drives, const DrivePath& path, bool overwrite, bool unicode);

// Creates one folder (not its missing parents: 3). An existing file or folder gives 183.
int32_t CreateFolder(const DriveTable& drives, const DrivePath& path);

// Deletes one file (a link is removed, not its target). 2 when missing, 5 for a folder.
int32_t DeleteFile(const DriveTable& drives, const DrivePath& path);

// Deletes an empty folder: 145 when it is not empty, 267 when `path` is a file, 2 when missing,
// 5 for a drive's root.
int32_t DeleteFolder(const DriveTable& drives, const DrivePath& path);

// Copies a file with its access and write times, put in place atomically. Without `overwrite`
// an existing target gives 80; a folder as source or target gives 5; a missing source 2.
int32_t CopyFile(const DriveTable& drives, const DrivePath& from, const DrivePath& to,
                 bool overwrite);

// Copies a folder tree (files and folders; links and special files are left out). Without
// `overwrite` an existing target gives 183; with it the trees are merged, files overwritten. A
// target inside the source gives 5, a missing source 3, a tree deeper than kMaxCopyDepth 5.
int32_t CopyFolder(const DriveTable& drives, const DrivePath& from, const DrivePath& to,
                   bool overwrite);

// Moves or renames a file or folder; never replaces: an existing target gives 183. Between two
// drives on different file systems a file is copied and then deleted; a folder gives 5.
int32_t MoveFile(const DriveTable& drives, const DrivePath& from, const DrivePath& to);

}  // namespace pelmorad

#endif  // PELMORAD_FILE_OPS_H_

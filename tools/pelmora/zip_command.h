// `pelmora zip` and `pelmora unzip`: the archive engines from the command line, with the flags
// of the Info-ZIP programs that scripts use. The exit status is the engine's return code.
#ifndef TOOLS_PELMORA_ZIP_COMMAND_H_
#define TOOLS_PELMORA_ZIP_COMMAND_H_

#include <cstdio>
#include <string>
#include <vector>

namespace pelmora_tool {

// The command line of `pelmora zip`.
struct ZipCommandLine {
  std::string archive;
  std::vector<std::string> names;
  bool recurse = false;
  bool junk_paths = false;
  bool encrypt = false;
  bool update = false;
  bool quiet = false;
  std::string password;       // -P
  std::string password_file;  // --password-file
  std::vector<std::string> exclude;  // -x: patterns of names to leave out ("*" crosses "/")
};

// The command line of `pelmora unzip`.
struct UnzipCommandLine {
  std::string archive;
  std::vector<std::string> names;
  bool test = false;
  bool list = false;
  bool overwrite = false;
  bool never_overwrite = false;
  bool newer_only = false;
  bool junk_paths = false;
  bool quiet = false;
  std::string extract_dir;
  std::string password;
  std::string password_file;
};

// Runs `pelmora zip`, printing to `out`; the zip return code (or 16 for an unusable password
// file). Blocks on file I/O and on a terminal password prompt.
int RunZipCommand(const ZipCommandLine& line, std::FILE* out);

// Runs `pelmora unzip`, printing to `out`; the unzip return code (or 5 for an unusable password
// file). Blocks on file I/O and on terminal prompts.
int RunUnzipCommand(const UnzipCommandLine& line, std::FILE* out);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_ZIP_COMMAND_H_

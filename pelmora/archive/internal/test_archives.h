// Test helpers for the archive tests: a scratch folder, file contents, the real zip and unzip
// programs, and archives built entry by entry with libzip (hostile names and links included).
#ifndef PELMORA_ARCHIVE_INTERNAL_TEST_ARCHIVES_H_
#define PELMORA_ARCHIVE_INTERNAL_TEST_ARCHIVES_H_

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zip.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "pelmora/archive/unzip_engine.h"
#include "pelmora/testing/scratch_folder.h"

namespace pelmora::archive::testing {

using pelmora::testing::ScratchFolder;

inline void WriteFile(const std::string& path, const std::string& contents) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << contents;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline bool Exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

// Runs `command` with sh in `folder`, output discarded; its exit status.
inline int RunIn(const std::string& folder, const std::string& command) {
  std::string line = "cd '" + folder + "' && " + command + " >/dev/null 2>&1";
  int status = std::system(line.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Whether testing `archive` with every password request cancelled skips all its entries (the
// engine then tries the empty password, which opens an entry by chance 1 time in 256).
inline bool EmptyPasswordFails(const std::string& archive) {
  DecompressionControl dcl;
  dcl.zip_file_name = archive;
  dcl.test = 1;
  UnzipCallbacks callbacks;
  callbacks.print = [](std::string_view) { return 0; };
  callbacks.replace = [](std::string&) { return kReplaceNo; };
  callbacks.password = [](std::string&, std::string_view, std::string_view) {
    return kPasswordCancel;
  };
  return RunUnzip(dcl, callbacks) == kUnzipBadPassword;
}

// Runs `zip_command` in `folder` to make the encrypted archive `archive` again until neither
// the `wrong` passwords nor the empty one pass its header check by chance (1 in 256 per entry);
// false if it never settles.
inline bool MakeEncrypted(const std::string& folder, const std::string& zip_command,
                          const std::string& archive, const std::vector<std::string>& wrong) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    std::remove(archive.c_str());
    if (RunIn(folder, zip_command) != 0) return false;
    bool settled = EmptyPasswordFails(archive);
    for (const std::string& password : wrong) {
      settled = settled && RunIn(folder, "unzip -tqq -P " + password + " '" + archive + "'") == 82;
    }
    if (settled) return true;
  }
  return false;
}

// One entry for BuildArchive.
struct TestEntry {
  std::string name;
  std::string data;
  uint32_t unix_mode = 0100644;
  bool store = false;
};

// Callbacks that append every message to `printed` and replace every existing file.
inline UnzipCallbacks Recording(std::string& printed) {
  UnzipCallbacks callbacks;
  callbacks.print = [&printed](std::string_view text) {
    printed += text;
    return 0;
  };
  callbacks.replace = [](std::string&) { return kReplaceYes; };
  return callbacks;
}

// Writes an archive of `entries` with libzip; false on failure.
inline bool BuildArchive(const std::string& path, const std::vector<TestEntry>& entries) {
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  if (archive == nullptr) return false;
  for (const TestEntry& entry : entries) {
    zip_source_t* source =
        zip_source_buffer(archive, entry.data.data(), entry.data.size(), 0);
    zip_int64_t index = zip_file_add(archive, entry.name.c_str(), source, ZIP_FL_ENC_RAW);
    if (index < 0) {
      zip_source_free(source);
      zip_discard(archive);
      return false;
    }
    zip_file_set_external_attributes(archive, static_cast<zip_uint64_t>(index), 0,
                                     ZIP_OPSYS_UNIX, entry.unix_mode << 16);
    zip_set_file_compression(archive, static_cast<zip_uint64_t>(index),
                             entry.store ? ZIP_CM_STORE : ZIP_CM_DEFLATE, 6);
  }
  return zip_close(archive) == 0;
}

}  // namespace pelmora::archive::testing

#endif  // PELMORA_ARCHIVE_INTERNAL_TEST_ARCHIVES_H_

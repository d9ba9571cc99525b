// InfoZip: builds a zip archive from a list of up to 100 names. The Boolean properties write the
// flags of the zip option record; Create hands the record and the list to the zip engine with
// the module's callbacks. Create never raises: it returns false with the engine's return code in
// ErrNumber and the last message it printed in ErrDescription. AddFile raises 2002 when the list
// is full.
//
//   InfoZip zip;
//   zip.ZipFileName("a.zip");
//   zip.RecurseFolders(true);
//   zip.AddFile("src");
//   if (!zip.Create()) std::cerr << zip.ErrNumber() << zip.ErrDescription();
#ifndef PELMORA_ARCHIVE_INFO_ZIP_H_
#define PELMORA_ARCHIVE_INFO_ZIP_H_

#include <cstdint>
#include <string>
#include <vector>

#include "pelmora/archive/zip_engine.h"
#include "pelmora/common/dictionary.h"
#include "pelmora/platform/export.h"

namespace pelmora {

// The zip module's state for the calling thread.
struct PELMORA_API ZipModuleState {
  std::string password;      // offered by the password callback
  std::string last_message;  // the most recent text printed
};

// The calling thread's zip module state.
PELMORA_API ZipModuleState& ZipModule();

class PELMORA_API InfoZip {
 public:
  // The most names the list holds.
  static constexpr size_t kMaxFiles = 100;

  // Boolean properties: setting stores 1 or 0; any non-zero field reads as true.
  bool RecurseFolders() const { return options_.recurse != 0; }
  void RecurseFolders(bool value) { options_.recurse = value ? 1 : 0; }
  const std::string& ZipFileName() const { return zip_file_name_; }
  void ZipFileName(std::string value) { zip_file_name_ = std::move(value); }
  bool Encrypted() const { return options_.encrypt != 0; }
  void Encrypted(bool value) { options_.encrypt = value ? 1 : 0; }
  const std::string& Password() const { return password_; }
  void Password(std::string value) { password_ = std::move(value); }
  bool IncludeSystemFiles() const { return options_.system != 0; }
  void IncludeSystemFiles(bool value) { options_.system = value ? 1 : 0; }
  bool IgnorePath() const { return options_.junk_dir != 0; }
  void IgnorePath(bool value) { options_.junk_dir = value ? 1 : 0; }
  // Number of names in the list.
  int32_t ZipFileCount() const { return static_cast<int32_t>(files_.Count()); }
  const std::string& RootDirectory() const { return options_.root_dir; }
  void RootDirectory(std::string value) { options_.root_dir = std::move(value); }
  bool UpdatingZip() const { return options_.update != 0; }
  void UpdatingZip(bool value) { options_.update = value ? 1 : 0; }

  // Adds a name (a name equal apart from letter case adds nothing). Raises 2002 "Too may zip
  // files" (source "AddFile") when the list already holds 100 names.
  void AddFile(const std::string& sFileName);
  // Removes a name; raises 5 when it is not in the list.
  void RemoveFile(const std::string& sFileName);
  // Empties the list.
  void RemoveAllFile();

  // Builds the archive. False at once (nothing recorded) with an empty list; otherwise false on
  // a non-zero return code. Blocks on file I/O and compression.
  bool Create();

  // The return code of the last Create that ran the engine.
  int32_t ErrNumber() const { return err_number_; }
  // The last message of a failed Create; empty after a successful one.
  const std::string& ErrDescription() const { return err_description_; }

  // The option record as the properties left it.
  const archive::ZipOptions& Options() const { return options_; }
  // The names in list order.
  std::vector<std::string> FileNames() const { return files_.Keys(); }

 private:
  archive::ZipOptions options_;
  OrderedDictionary<bool> files_;
  std::string zip_file_name_;
  std::string password_;
  int32_t err_number_ = 0;
  std::string err_description_;
};

}  // namespace pelmora

#endif  // PELMORA_ARCHIVE_INFO_ZIP_H_

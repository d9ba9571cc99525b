// InfoUnzip: extracts, tests or lists a zip archive. The properties read and write the fields of
// the decompression control list; Unzip hands it to the unzip engine with the module's
// callbacks. Failures never raise: Unzip returns false and leaves the engine's return code in
// ErrNumber and everything it printed in ErrDescription.
//
//   InfoUnzip unzip;
//   unzip.Password("secret");
//   if (!unzip.Unzip("a.zip", "out")) std::cerr << unzip.ErrNumber() << unzip.ErrDescription();
#ifndef PELMORA_ARCHIVE_INFO_UNZIP_H_
#define PELMORA_ARCHIVE_INFO_UNZIP_H_

#include <cstdint>
#include <string>

#include "pelmora/archive/unzip_engine.h"
#include "pelmora/platform/export.h"

namespace pelmora {

// Message level of MessageLevel.
enum ZMessageLevel : int32_t { All = 0, Less = 1, NoMessages = 2 };
// What Unzip does, in ExtractList.
enum ZExtractType : int32_t { Extract = 0, ListContents = 1 };
// Windows security restoration, in Privilege (kept, not acted on).
enum ZPrivilege : int32_t { Ignore = 0, ACL = 1, Privileges = 2 };

// The unzip module's state for the calling thread: what the callbacks of the last (or current)
// Unzip saw.
struct PELMORA_API UnzipModuleState {
  std::string password;
  int16_t password_offered = 0;
  std::string message_text;
  std::string listing;
  int16_t listing_count = 0;
};

// The calling thread's unzip module state.
PELMORA_API UnzipModuleState& UnzipModule();

class PELMORA_API InfoUnzip {
 public:
  // Defaults: HonorDirectories, OverWriteFiles and CaseSensitive on, everything else off/empty.
  InfoUnzip();

  // Boolean properties: setting stores 1 or 0; reading is true only for a field holding 1.
  bool ExtractOnlyNewer() const { return dcl_.extract_only_newer == 1; }
  void ExtractOnlyNewer(bool value) { dcl_.extract_only_newer = value ? 1 : 0; }
  bool SpaceToUnderscore() const { return dcl_.space_to_underscore == 1; }
  void SpaceToUnderscore(bool value) { dcl_.space_to_underscore = value ? 1 : 0; }
  bool PromptOverwrite() const { return dcl_.prompt_to_overwrite == 1; }
  void PromptOverwrite(bool value) { dcl_.prompt_to_overwrite = value ? 1 : 0; }
  // ZMessageLevel, stored unchecked.
  int32_t MessageLevel() const { return dcl_.quiet; }
  void MessageLevel(int32_t value) { dcl_.quiet = value; }
  bool WriteToStdOut() const { return dcl_.to_stdout == 1; }
  void WriteToStdOut(bool value) { dcl_.to_stdout = value ? 1 : 0; }
  bool TestZip() const { return dcl_.test == 1; }
  void TestZip(bool value) { dcl_.test = value ? 1 : 0; }
  // ZExtractType, stored unchecked.
  int32_t ExtractList() const { return dcl_.list; }
  void ExtractList(int32_t value) { dcl_.list = value; }
  // Reading sets ExtractOnlyNewer from the freshen field and returns false.
  bool FreshenExisting();
  void FreshenExisting(bool value) { dcl_.freshen = value ? 1 : 0; }
  bool DisplayComment() const { return dcl_.comment_only == 1; }
  void DisplayComment(bool value) { dcl_.comment_only = value ? 1 : 0; }
  bool HonorDirectories() const { return dcl_.honor_directories == 1; }
  void HonorDirectories(bool value) { dcl_.honor_directories = value ? 1 : 0; }
  bool OverWriteFiles() const { return dcl_.overwrite == 1; }
  void OverWriteFiles(bool value) { dcl_.overwrite = value ? 1 : 0; }
  bool ConvertCRtoCRLF() const { return dcl_.convert_text == 1; }
  void ConvertCRtoCRLF(bool value) { dcl_.convert_text = value ? 1 : 0; }
  bool Verbose() const { return dcl_.zipinfo == 1; }
  void Verbose(bool value) { dcl_.zipinfo = value ? 1 : 0; }
  bool CaseSensitive() const { return dcl_.case_insensitive == 1; }
  void CaseSensitive(bool value) { dcl_.case_insensitive = value ? 1 : 0; }
  // ZPrivilege, stored unchecked.
  int32_t Privilege() const { return dcl_.privilege; }
  void Privilege(int32_t value) { dcl_.privilege = value; }
  const std::string& ZipFileName() const { return dcl_.zip_file_name; }
  void ZipFileName(std::string value) { dcl_.zip_file_name = std::move(value); }
  const std::string& ExtractDir() const { return dcl_.extract_dir; }
  void ExtractDir(std::string value) { dcl_.extract_dir = std::move(value); }
  const std::string& Password() const { return password_; }
  void Password(std::string value) { password_ = std::move(value); }

  // Extracts, tests or lists ZipFileName (replaced by `sZipFileName` and ExtractDir by
  // `sExtractDir` when those are not empty). True on return code 0; otherwise false with
  // ErrNumber and ErrDescription set. Blocks on file I/O and on the overwrite prompt.
  bool Unzip(const std::string& sZipFileName = {}, const std::string& sExtractDir = {});

  // The return code of the last Unzip (0 before the first).
  int32_t ErrNumber() const { return err_number_; }
  // Everything printed by a failed Unzip; empty after a successful one.
  const std::string& ErrDescription() const { return err_description_; }

  // The decompression control list as the properties left it.
  const archive::DecompressionControl& Options() const { return dcl_; }
  // Limits against zip bombs (not part of the record; defaults as ExtractLimits).
  archive::ExtractLimits& Limits() { return limits_; }

 private:
  archive::DecompressionControl dcl_;
  archive::ExtractLimits limits_;
  std::string password_;
  int32_t err_number_ = 0;
  std::string err_description_;
};

}  // namespace pelmora

#endif  // PELMORA_ARCHIVE_INFO_UNZIP_H_

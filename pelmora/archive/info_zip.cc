// InfoZip and the zip module's callbacks.
#include "pelmora/archive/info_zip.h"

#include <new>

#include "pelmora/archive/archive_codes.h"
#include "pelmora/archive/archive_prompt.h"
#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"

namespace pelmora {
namespace {

constexpr int32_t kTooManyFiles = 2002;

std::string_view UpToZero(std::string_view text) { return text.substr(0, text.find('\0')); }

int PrintToModule(std::string_view text) {
  ZipModule().last_message = std::string(UpToZero(text));
  return 0;
}

int OfferPassword(std::string& answer, std::string_view, std::string_view) {
  const std::string& password = ZipModule().password;
  if (password.empty()) return 1;
  answer = Utf8ToAnsi(password);  // the library keys the archive with the ANSI bytes
  return 0;
}

int AskComment(std::string& comment) {
  std::string answer = archive::CurrentArchivePrompt().AskText("Enter the comment");
  if (!answer.empty()) comment = answer;
  return 1;
}

// The archive call, whose run-time failures end in a return code and never reach the caller.
int RunZipQuietly(const archive::ZipOptions& options, const std::string& zip_file_name,
                  const std::vector<std::string>& names, const archive::ZipCallbacks& callbacks,
                  const archive::ZipTuning& tuning) {
  try {
    return archive::RunZip(options, zip_file_name, names, callbacks, tuning);
  } catch (const std::bad_alloc&) {
    return archive::kZipMem;
  } catch (...) {
    return archive::kZipLogic;
  }
}

}  // namespace

ZipModuleState& ZipModule() {
  static thread_local ZipModuleState state;
  return state;
}

void InfoZip::AddFile(const std::string& sFileName) {
  if (files_.Count() >= kMaxFiles) throw Error(kTooManyFiles, "Too may zip files", "AddFile");
  files_.SetItem(sFileName, true);
}

void InfoZip::RemoveFile(const std::string& sFileName) { files_.Remove(sFileName); }

void InfoZip::RemoveAllFile() { files_.RemoveAll(); }

bool InfoZip::Create() {
  if (static_cast<int16_t>(files_.Count()) == 0) return false;
  ZipModuleState& module = ZipModule();
  module.password = Encrypted() ? password_ : std::string();
  module.last_message.clear();
  archive::ZipCallbacks callbacks;
  callbacks.print = &PrintToModule;
  callbacks.comment = &AskComment;
  callbacks.password = &OfferPassword;
  callbacks.service = [](std::string_view, uint64_t) { return 0; };
  err_number_ = RunZipQuietly(options_, zip_file_name_, files_.Keys(), callbacks, {});
  if (err_number_ != 0) {
    err_description_ = module.last_message;
    return false;
  }
  err_description_.clear();
  return true;
}

}  // namespace pelmora

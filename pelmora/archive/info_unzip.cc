// InfoUnzip and the unzip module's callbacks.
#include "pelmora/archive/info_unzip.h"

#include <fmt/format.h>

#include <new>

#include "pelmora/archive/archive_prompt.h"
#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"

namespace pelmora {
namespace {

using archive::ListedEntry;

constexpr size_t kPasswordSize = 81;

// The text up to its first zero byte, as the callbacks read their buffers.
std::string_view UpToZero(std::string_view text) { return text.substr(0, text.find('\0')); }

int PrintToModule(std::string_view text) {
  std::string_view read = UpToZero(text);
  if (!read.empty() && read.front() == '\n') read = "\r\n";
  UnzipModule().message_text += read;
  return 0;
}

int ReplaceByPrompt(std::string& name) {
  switch (archive::CurrentArchivePrompt().AskYesNoCancel("Overwrite " + name + "?",
                                                         "Unzip - File Already Exists!")) {
    case archive::PromptAnswer::kYes:
      return archive::kReplaceYes;
    case archive::PromptAnswer::kCancel:
      return archive::kReplaceNone;
    case archive::PromptAnswer::kNo:
      break;
  }
  return archive::kReplaceNo;
}

int OfferPassword(std::string& answer, std::string_view, std::string_view) {
  UnzipModuleState& module = UnzipModule();
  if (module.password_offered != 0) return 1;
  if (module.password.empty()) {
    module.password_offered = 1;
    return 1;
  }
  answer = Utf8ToAnsi(module.password).substr(0, kPasswordSize - 1);
  module.password_offered = 1;
  return 0;
}

// Two-digit years as the date functions read them: 00-29 are 2000-2029.
uint32_t FullYear(uint32_t year) { return year < 30 ? 2000 + year : 1900 + year; }

void ListEntry(const ListedEntry& entry) {
  UnzipModuleState& module = UnzipModule();
  if (module.listing_count == 0) module.listing = "FileName\tSize\tModifed\tRatio\tPacked\tCrypt\r\n";
  module.listing += fmt::format("{}\t{}\t{:04}-{:02}-{:02} {:02}:{:02}\t{}\t{}\t{}\r\n",
                                UpToZero(entry.name), entry.size, FullYear(entry.year),
                                entry.month, entry.day, entry.hour, entry.minute,
                                entry.compression_factor, entry.compressed,
                                entry.crypt == 'E' ? 1 : 0);
  module.listing_count = static_cast<int16_t>(module.listing_count + 1);
}

int RunExtraction(const archive::DecompressionControl& dcl,
                  const archive::ExtractLimits& limits) {
  UnzipModuleState& module = UnzipModule();
  module.listing_count = 0;
  module.listing.clear();
  module.message_text.clear();
  module.password_offered = 0;
  archive::UnzipCallbacks callbacks;
  callbacks.print = &PrintToModule;
  callbacks.replace = &ReplaceByPrompt;
  callbacks.password = &OfferPassword;
  callbacks.message = &ListEntry;
  callbacks.service = [](std::string_view, uint64_t) { return 0; };
  // A run-time error inside the call is its result: its number, and its text as the message.
  try {
    return archive::RunUnzip(dcl, callbacks, {}, limits);
  } catch (const Error& e) {
    module.message_text = e.Description();
    return e.Number();
  } catch (const std::bad_alloc&) {
    Error e = RuntimeError(7);
    module.message_text = e.Description();
    return e.Number();
  } catch (...) {
    Error e = RuntimeError(51);
    module.message_text = e.Description();
    return e.Number();
  }
}

}  // namespace

UnzipModuleState& UnzipModule() {
  static thread_local UnzipModuleState state;
  return state;
}

InfoUnzip::InfoUnzip() {
  dcl_.honor_directories = 1;
  dcl_.overwrite = 1;
  dcl_.case_insensitive = 1;
}

bool InfoUnzip::FreshenExisting() {
  dcl_.extract_only_newer = dcl_.freshen == 1 ? 1 : 0;
  return false;
}

bool InfoUnzip::Unzip(const std::string& sZipFileName, const std::string& sExtractDir) {
  if (!sZipFileName.empty()) dcl_.zip_file_name = sZipFileName;
  if (!sExtractDir.empty()) dcl_.extract_dir = sExtractDir;
  UnzipModule().password = password_;
  err_number_ = RunExtraction(dcl_, limits_);
  if (err_number_ != 0) {
    err_description_ = UnzipModule().message_text;
    return false;
  }
  err_description_.clear();
  return true;
}

}  // namespace pelmora

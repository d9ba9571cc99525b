#include "pelmora/common/log.h"

#include <fmt/format.h>

#include <optional>

#include "pelmora/common/codepage.h"
#include "pelmora/common/date.h"
#include "pelmora/common/internal/platform.h"
#include "pelmora/common/system.h"

namespace pelmora {
namespace {

// The letter written for an entry type and the extension of the day file it goes to.
struct EntryKind {
  char letter = 'U';
  std::string_view extension = ".err";
};

EntryKind KindOf(int32_t entry_type) {
  switch (entry_type) {
    case kLogEntryError:
      return {'E', ".err"};
    case kLogEntryWarning:
      return {'W', ".err"};
    case kLogEntryInformation:
      return {'I', ".log"};
    default:
      return {'U', ".err"};
  }
}

// Back-quotes become apostrophes (the back-quote separates WriteLogFile's fields), then each CR LF
// pair becomes one space; a lone CR or LF stays.
std::string CleanMessage(std::string_view message) {
  std::string cleaned;
  cleaned.reserve(message.size());
  for (size_t i = 0; i < message.size(); ++i) {
    if (message[i] == '\r' && i + 1 < message.size() && message[i + 1] == '\n') {
      cleaned += ' ';
      ++i;
    } else {
      cleaned += message[i] == '`' ? '\'' : message[i];
    }
  }
  return cleaned;
}

// The month folder for WriteLog under `root`, created when missing; nullopt when it cannot be.
std::optional<std::string> MonthFolder(const std::string& root, const Date& now) {
  std::string folder = root + "/" + now.Format("yyyymm");
  if (!internal::FolderExists(folder) && !internal::CreateFolder(folder)) return std::nullopt;
  return folder;
}

bool WriteLevelledLine(std::string_view message, std::string_view module_name,
                       std::string_view procedure_name, int32_t entry_type) {
  const std::string& root = LogRoot();
  if (root.empty() || !internal::FolderExists(root)) return false;
  Date now = CurrentLocalTime();
  std::string stamp = now.Format("yyyy-mm-dd hh:nn:ss");
  std::optional<std::string> folder = MonthFolder(root, now);
  if (!folder) return false;
  std::optional<std::string> computer = internal::ReadHostName();
  if (!computer) return false;
  EntryKind kind = KindOf(entry_type);
  std::string file = *folder + "/" + now.Format("yyyymmdd") + std::string(kind.extension);
  std::string line = fmt::format("{},{},{},[{}:{}],{}\r\n", stamp, kind.letter, *computer,
                                 module_name, procedure_name, CleanMessage(message));
  return internal::AppendToFile(file, Utf8ToAnsi(line));  // log files are ANSI text
}

bool WriteLibraryLine(int32_t error_number, std::string_view message, std::string_view module_name,
                      std::string_view procedure_name, int32_t entry_type, int32_t detail_number,
                      std::string_view file_prefix) {
  Date now = CurrentLocalTime();
  std::string stamp = now.Format("yyyy-mm-dd hh:mm:ss");
  std::string library_folder = LibraryFolder();
  if (library_folder.empty()) return false;
  EntryKind kind = KindOf(entry_type);
  std::string file = fmt::format("{}/../Log/{}/{}{}{}", library_folder, now.Format("yyyymm"),
                                 file_prefix, now.Format("yyyymmdd"), kind.extension);
  if (!internal::CreateFolderPath(file)) return false;
  std::string line =
      fmt::format("{}`{}`{}`[{}:{}]`{}`{}`{}\r\n", stamp, kind.letter, LocalComputerName(),
                  module_name, procedure_name, detail_number, error_number, CleanMessage(message));
  return internal::AppendToFile(file, Utf8ToAnsi(line));  // log files are ANSI text
}

}  // namespace

bool WriteLog(int16_t level, std::string_view message, std::string_view module_name,
              std::string_view procedure_name, int32_t entry_type) {
  try {
    if (level > LogLevel()) return false;
    return WriteLevelledLine(message, module_name, procedure_name, entry_type);
  } catch (...) {
    return false;
  }
}

bool WriteLogFile(int32_t error_number, std::string_view message, std::string_view module_name,
                  std::string_view procedure_name, int32_t entry_type, int32_t detail_number,
                  std::string_view file_prefix) {
  try {
    return WriteLibraryLine(error_number, message, module_name, procedure_name, entry_type,
                            detail_number, file_prefix);
  } catch (...) {
    return false;
  }
}

std::string& LogRoot() {
  thread_local std::string root;
  return root;
}

int16_t& LogLevel() {
  thread_local int16_t level = 0;
  return level;
}

}  // namespace pelmora

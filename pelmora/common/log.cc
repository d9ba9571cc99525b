#include "pelmora/common/log.h"

#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>

#include "pelmora/common/codepage.h"
#include "pelmora/common/date.h"
#include "pelmora/common/internal/platform.h"
#include "pelmora/common/system.h"
#include "pelmora/platform/log_layout.h"

namespace pelmora {
namespace {

// The letter written for an entry type and the day file it goes to.
struct EntryKind {
  char letter = 'U';
  platform::LogKind file = platform::LogKind::kError;
};

EntryKind KindOf(int32_t entry_type) {
  switch (entry_type) {
    case kLogEntryError:
      return {'E', platform::LogKind::kError};
    case kLogEntryWarning:
      return {'W', platform::LogKind::kError};
    case kLogEntryInformation:
      return {'I', platform::LogKind::kInformation};
    default:
      return {'U', platform::LogKind::kError};
  }
}

// Appends `message` to `out` with back-quotes turned into apostrophes (the back-quote separates
// WriteLogFile's fields) and each CR LF pair into one space; a lone CR or LF stays.
void AppendCleaned(std::string& out, std::string_view message) {
  for (size_t i = 0; i < message.size(); ++i) {
    if (message[i] == '\r' && i + 1 < message.size() && message[i + 1] == '\n') {
      out += ' ';
      ++i;
    } else {
      out += message[i] == '`' ? '\'' : message[i];
    }
  }
}

std::string CleanMessage(std::string_view message) {
  std::string cleaned;
  cleaned.reserve(message.size());
  AppendCleaned(cleaned, message);
  return cleaned;
}

// The month folder of `day` for WriteLog under `root`, created when missing; nullopt when it
// cannot be.
std::optional<std::string> MonthFolder(const std::string& root, const std::string& day) {
  std::string folder = platform::LogMonthFolder(root, day);
  if (!internal::FolderExists(folder) && !internal::CreateFolder(folder)) return std::nullopt;
  return folder;
}

// What WriteLog remembers on each thread between lines: the texts of the current second, the
// computer name read in that second, and the last month folder it saw exist under its root.
struct LevelledState {
  double second = -1;    // the Date (whole seconds) the fields below belong to
  std::string stamp;     // yyyy-mm-dd hh:nn:ss
  std::string day;       // yyyymmdd
  std::optional<std::string> computer;
  std::string folder;    // root's month folder, known to exist when last written to; or empty

  // Brings the texts and the computer name up to the second of `now`.
  void Advance(const Date& now) {
    if (now.Serial() == second) return;
    stamp = now.Format("yyyy-mm-dd hh:nn:ss");
    day = now.Format("yyyymmdd");
    computer = internal::ReadHostName();
    second = now.Serial();
  }
};

// Whether the ANSI code page leaves ASCII text as it is (the Windows code pages do; a UTF-16 or
// EBCDIC setting would not), asked once for each code page a thread meets.
bool KeepsAscii() {
  thread_local std::string known;
  thread_local bool keeps = false;
  std::string code_page = AnsiCodePage();
  if (code_page != known) {
    std::string ascii(128, '\0');
    for (size_t i = 0; i < ascii.size(); ++i) ascii[i] = static_cast<char>(i);
    keeps = Utf8ToAnsi(ascii) == ascii;
    known = std::move(code_page);
  }
  return keeps;
}

// The line as written to a log file: ANSI text.
std::string ToAnsi(std::string line) {
  bool ascii = std::all_of(line.begin(), line.end(),
                           [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  return ascii && KeepsAscii() ? std::move(line) : Utf8ToAnsi(line);
}

// The slow path of WriteLog, taken for the first line of a root or month and whenever the day
// file cannot be opened for want of a folder: the root test, then the month folder.
bool CheckFolders(const std::string& root, LevelledState& state) {
  state.folder.clear();
  if (!internal::FolderExists(root)) return false;
  std::optional<std::string> folder = MonthFolder(root, state.day);
  if (!folder) return false;
  state.folder = std::move(*folder);
  return true;
}

bool WriteLevelledLine(std::string_view message, std::string_view module_name,
                       std::string_view procedure_name, int32_t entry_type) {
  const std::string& root = LogRoot();
  if (root.empty()) return false;
  thread_local LevelledState state;
  state.Advance(CurrentLocalTime());
  // The day file is tried first while its month folder is known; a folder that has gone since
  // shows as ENOENT and sends the line through the root test and the month folder again.
  std::string folder = platform::LogMonthFolder(root, state.day);
  bool known = state.folder == folder;
  if (!known && !CheckFolders(root, state)) return false;
  if (!state.computer) return false;
  EntryKind kind = KindOf(entry_type);
  std::string file = folder + "/" + platform::LogFileName(state.day, kind.file);
  std::string line;
  line.reserve(state.stamp.size() + state.computer->size() + module_name.size() +
               procedure_name.size() + message.size() + 12);
  // stamp,letter,computer,[module:procedure],message CR LF
  line.append(state.stamp).append(1, ',').append(1, kind.letter).append(1, ',');
  line.append(*state.computer).append(",[").append(module_name).append(1, ':');
  line.append(procedure_name).append("],");
  AppendCleaned(line, message);
  line.append("\r\n");
  line = ToAnsi(std::move(line));
  if (internal::AppendToFile(file, line)) return true;
  if (!known || errno != ENOENT) return false;
  return CheckFolders(root, state) && internal::AppendToFile(file, line);
}

bool WriteLibraryLine(int32_t error_number, std::string_view message, std::string_view module_name,
                      std::string_view procedure_name, int32_t entry_type, int32_t detail_number,
                      std::string_view file_prefix) {
  Date now = CurrentLocalTime();
  std::string stamp = now.Format("yyyy-mm-dd hh:mm:ss");
  std::string library_folder = LibraryFolder();
  if (library_folder.empty()) return false;
  EntryKind kind = KindOf(entry_type);
  std::string line =
      fmt::format("{}`{}`{}`[{}:{}]`{}`{}`{}\r\n", stamp, kind.letter, LocalComputerName(),
                  module_name, procedure_name, detail_number, error_number, CleanMessage(message));
  line = ToAnsi(std::move(line));
  auto write_under = [&](const std::string& root) {
    std::string file = platform::LogFilePath(root, now.Format("yyyymmdd"), kind.file, file_prefix);
    return internal::CreateFolderPath(file) && internal::AppendToFile(file, line);
  };
  if (write_under(library_folder + "/../Log")) return true;
  // A user other than root, who may not write beside an installed library, writes to a folder
  // of their own.
  if (::geteuid() == 0) return false;
  std::string own = UserLogRoot();
  return !own.empty() && write_under(own);
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

std::string UserLogRoot() {
  const char* state = std::getenv("XDG_STATE_HOME");
  if (state != nullptr && *state != '\0') return std::string(state) + "/pelmora/log";
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') return std::string(home) + "/.local/state/pelmora/log";
  return "";
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

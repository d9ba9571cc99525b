// `pelmora zip` and `pelmora unzip`.
//
//   pelmora zip [-r] [-j] [-e] [-u] [-q] [-P PASSWORD | --password-file F] ARCHIVE NAME...
//   pelmora unzip [-t | -l] [-o | -n] [-u] [-j] [-q] [-d DIR] [-P PASSWORD | --password-file F]
//                 ARCHIVE [NAME...]
//
// Without -o or -n, unzip asks on the terminal before replacing a file ([y]es, [n]o, [A]ll,
// [N]one, [r]ename) and, without a terminal, leaves it alone and names it on standard error. Passwords come from -P, from the
// file given (its first line), or are typed at the terminal.
#include "tools/pelmora/zip_command.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fnmatch.h>
#include <glob.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <optional>

#include "pelmora/archive/unzip_engine.h"
#include "pelmora/archive/zip_engine.h"
#include "tools/pelmora/commands.h"
#include "tools/pelmora/crypto_io.h"

namespace pelmora_tool {
namespace {

namespace archive = pelmora::archive;

archive::PrintCallback PrintTo(std::FILE* out) {
  return [out](std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), out);
    return 0;
  };
}

// The password given on the command line or in a file; empty when neither is given.
std::string GivenPassword(const std::string& password, const std::string& file) {
  if (!password.empty() || file.empty()) return password;
  Bytes bytes = ReadPassword(file, "");
  std::string text(bytes.begin(), bytes.end());
  Wipe(bytes);
  return text;
}

// One line typed at the terminal after `question`; nullopt without a terminal.
std::optional<std::string> AskTerminal(const std::string& question) {
  int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string line;
  if (write(fd, question.data(), question.size()) >= 0) {
    char c = 0;
    while (line.size() < 4096 && read(fd, &c, 1) == 1 && c != '\n') line += c;
  }
  close(fd);
  return line;
}

int ReplaceAtTerminal(std::string& name) {
  auto answer = AskTerminal("replace " + name + "? [y]es, [n]o, [A]ll, [N]one, [r]ename: ");
  if (!answer) {
    // No one to ask: the file is left alone, and said so (-n leaves it without a word).
    std::fprintf(stderr,
                 "pelmora: unzip: %s exists: skipped (no terminal to ask; -o replaces, -n skips "
                 "quietly)\n",
                 name.c_str());
    return archive::kReplaceNo;
  }
  if (answer->empty()) return archive::kReplaceNo;
  switch ((*answer)[0]) {
    case 'y':
      return archive::kReplaceYes;
    case 'A':
      return archive::kReplaceAll;
    case 'N':
      return archive::kReplaceNone;
    case 'r': {
      auto renamed = AskTerminal("new name: ");
      if (!renamed || renamed->empty()) return archive::kReplaceNo;
      name = *renamed;
      return archive::kReplaceRename;
    }
    default:
      return archive::kReplaceNo;
  }
}

// A password callback: the given password once, or what is typed at the terminal.
archive::PasswordCallback PasswordSource(std::string given) {
  auto used = std::make_shared<bool>(false);
  return [given, used](std::string& answer, std::string_view prompt, std::string_view name) {
    if (!given.empty()) {
      if (*used && prompt.rfind("Verify", 0) != 0) return archive::kPasswordCancel;
      *used = true;
      answer = given;
      return archive::kPasswordEntered;
    }
    try {
      // unzip names the entry after its prompt; zip's prompts stand alone.
      bool names_entry = prompt.rfind("Enter password for", 0) == 0;
      Bytes typed = ReadPassword("", std::string(prompt) + (names_entry ? std::string(name) + " " : ""));
      answer.assign(typed.begin(), typed.end());
      Wipe(typed);
      return archive::kPasswordEntered;
    } catch (const CommandError&) {
      return archive::kPasswordError;
    }
  };
}

void PrintListing(const std::vector<archive::ListedEntry>& entries, std::FILE* out) {
  std::fprintf(out, "  Length      Date    Time    Name\n---------  ---------- -----   ----\n");
  uint64_t total = 0;
  for (const archive::ListedEntry& e : entries) {
    uint32_t year = e.year < 80 ? 2000 + e.year : 1900 + e.year;
    std::fputs(fmt::format("{:9}  {:04}-{:02}-{:02} {:02}:{:02}   {}\n", e.size, year, e.month,
                           e.day, e.hour, e.minute, e.name).c_str(), out);
    total += e.size;
  }
  std::fputs(fmt::format("---------                     -------\n{:9}                     {} "
                         "file{}\n", total, entries.size(), entries.size() == 1 ? "" : "s")
                 .c_str(), out);
}

bool Excluded(const std::string& path, const std::vector<std::string>& patterns) {
  std::string stored = path.substr(path.find_first_not_of('/') == std::string::npos
                                       ? 0
                                       : path.find_first_not_of('/'));
  for (const std::string& pattern : patterns) {
    if (fnmatch(pattern.c_str(), path.c_str(), 0) == 0 ||
        fnmatch(pattern.c_str(), stored.c_str(), 0) == 0) {
      return true;
    }
  }
  return false;
}

// The names to archive once the -x patterns are applied: wildcards expanded and, with -r,
// folders walked here, so the engine gets every kept file and folder by name.
std::vector<std::string> KeptNames(const ZipCommandLine& line) {
  namespace fs = std::filesystem;
  std::vector<std::string> kept;
  for (const std::string& name : line.names) {
    glob_t found{};
    std::vector<std::string> matches;
    if (glob(name.c_str(), GLOB_NOCHECK, nullptr, &found) == 0) {
      for (size_t i = 0; i < found.gl_pathc; ++i) matches.emplace_back(found.gl_pathv[i]);
    }
    globfree(&found);
    for (const std::string& match : matches) {
      if (Excluded(match, line.exclude)) continue;
      kept.push_back(match);
      std::error_code error;
      if (!line.recurse || !fs::is_directory(match, error)) continue;
      for (auto it = fs::recursive_directory_iterator(match, error);
           !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        std::string path = it->path().string();
        if (Excluded(path, line.exclude)) {
          it.disable_recursion_pending();
        } else {
          kept.push_back(path);
        }
      }
    }
  }
  return kept;
}

// The options both commands share: -j, -q, -P, --password-file and the archive.
template <class Line>
void AddSharedOptions(CLI::App* command, Line& line) {
  command->add_flag("-j", line.junk_paths, "leave out the folders of the names");
  command->add_flag("-q", line.quiet, "fewer messages");
  command->add_option("-P", line.password, "the password (visible to other users)");
  command->add_option("--password-file", line.password_file, "read the password from a file");
  command->add_option("archive", line.archive, "the archive")->required();
}

}  // namespace

int RunZipCommand(const ZipCommandLine& line, std::FILE* out) {
  archive::ZipOptions options;
  options.recurse = line.recurse ? 1 : 0;
  options.junk_dir = line.junk_paths ? 1 : 0;
  options.encrypt = line.encrypt ? 1 : 0;
  options.update = line.update ? 1 : 0;
  options.quiet = line.quiet ? 1 : 0;
  archive::ZipCallbacks callbacks;
  callbacks.print = PrintTo(out);
  try {
    callbacks.password = PasswordSource(GivenPassword(line.password, line.password_file));
  } catch (const CommandError& error) {
    std::fprintf(stderr, "pelmora: zip: %s\n", error.what());
    return archive::kZipParms;
  }
  if (line.exclude.empty()) return archive::RunZip(options, line.archive, line.names, callbacks);
  options.recurse = 0;  // the folders are walked here
  return archive::RunZip(options, line.archive, KeptNames(line), callbacks);
}

int RunUnzipCommand(const UnzipCommandLine& line, std::FILE* out) {
  archive::DecompressionControl dcl;
  dcl.zip_file_name = line.archive;
  dcl.extract_dir = line.extract_dir;
  dcl.test = line.test ? 1 : 0;
  dcl.list = line.list ? 1 : 0;
  dcl.overwrite = line.overwrite ? 1 : 0;
  dcl.prompt_to_overwrite = line.overwrite || line.never_overwrite ? 0 : 1;
  dcl.extract_only_newer = line.newer_only ? 1 : 0;
  dcl.honor_directories = line.junk_paths ? 0 : 1;
  dcl.quiet = line.quiet ? 1 : 0;
  archive::UnzipCallbacks callbacks;
  callbacks.print = PrintTo(out);
  callbacks.replace = &ReplaceAtTerminal;
  std::vector<archive::ListedEntry> listed;
  callbacks.message = [&](const archive::ListedEntry& entry) { listed.push_back(entry); };
  try {
    callbacks.password = PasswordSource(GivenPassword(line.password, line.password_file));
  } catch (const CommandError& error) {
    std::fprintf(stderr, "pelmora: unzip: %s\n", error.what());
    return archive::kUnzipMem2;
  }
  int rc = archive::RunUnzip(dcl, callbacks, {line.names, {}});
  if (line.list && rc == archive::kUnzipOk) PrintListing(listed, out);
  return rc;
}

void AddZipCommand(CLI::App& app, CommandAction& action) {
  auto zip_line = std::make_shared<ZipCommandLine>();
  CLI::App* zip = app.add_subcommand("zip", "create or update a zip archive");
  zip->add_flag("-r", zip_line->recurse, "recurse into folders");
  zip->add_flag("-e", zip_line->encrypt, "encrypt (asks for the password)");
  zip->add_flag("-u", zip_line->update, "add new files, replace only with newer ones");
  zip->add_option("-x,--exclude", zip_line->exclude,
                  "leave out names matching these patterns (\"*\" crosses \"/\"), as -x '*.log'")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  AddSharedOptions(zip, *zip_line);
  zip->add_option("names", zip_line->names, "files, folders, wildcards")->required();
  zip->callback([&action, zip_line] {
    action = [zip_line] { return RunZipCommand(*zip_line, stdout); };
  });
  auto unzip_line = std::make_shared<UnzipCommandLine>();
  CLI::App* unzip = app.add_subcommand("unzip", "extract, test or list a zip archive");
  unzip->add_flag("-t", unzip_line->test, "test the archive");
  unzip->add_flag("-l", unzip_line->list, "list the archive");
  unzip->add_flag("-o", unzip_line->overwrite, "overwrite files without asking");
  unzip->add_flag("-n", unzip_line->never_overwrite, "never overwrite files");
  unzip->add_flag("-u", unzip_line->newer_only, "extract only newer or missing files");
  unzip->add_option("-d", unzip_line->extract_dir, "extract into this folder");
  AddSharedOptions(unzip, *unzip_line);
  unzip->add_option("names", unzip_line->names, "entries to process (wildcards allowed)");
  unzip->callback([&action, unzip_line] {
    action = [unzip_line] { return RunUnzipCommand(*unzip_line, stdout); };
  });
}

}  // namespace pelmora_tool

// The unzip engine against archives made by the real zip program and by hand: messages, return
// codes, overwrite rules, callbacks.
#include "pelmora/archive/unzip_engine.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pelmora/archive/internal/test_archives.h"

namespace pelmora::archive {
namespace {

using testing::Exists;
using testing::ReadFile;
using testing::RunIn;
using testing::ScratchFolder;
using testing::TestEntry;
using testing::WriteFile;

const std::string kText = std::string(2000, 'a') + "\n";

class UnzipEngine : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(dir_.Path("src/a.txt"), kText);
    WriteFile(dir_.Path("src/sub/b.txt"), "bee\n");
    chmod(dir_.Path("src/sub/b.txt").c_str(), 0640);
    ASSERT_EQ(RunIn(dir_.Path("src"), "touch -d '2021-03-04 05:06:07' a.txt sub/b.txt"), 0);
    ASSERT_EQ(RunIn(dir_.Path("src"), "zip -r ../a.zip a.txt sub"), 0);
    dcl_.zip_file_name = dir_.Path("a.zip");
    dcl_.extract_dir = dir_.Path("out");
    dcl_.honor_directories = 1;
    dcl_.overwrite = 1;
    callbacks_.print = [this](std::string_view text) {
      printed_ += text;
      return 0;
    };
    callbacks_.replace = [this](std::string& name) {
      asked_.push_back(name);
      return replace_answer_;
    };
  }

  int Run() {
    printed_.clear();
    return RunUnzip(dcl_, callbacks_, selection_, limits_);
  }

  ScratchFolder dir_;
  DecompressionControl dcl_;
  UnzipCallbacks callbacks_;
  EntrySelection selection_;
  ExtractLimits limits_;
  std::string printed_;
  std::vector<std::string> asked_;
  int replace_answer_ = kReplaceYes;
};

TEST_F(UnzipEngine, ExtractsBytesModesAndTimesOfZipArchive) {
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")), kText);
  EXPECT_EQ(ReadFile(dir_.Path("out/sub/b.txt")), "bee\n");
  struct stat src {}, out {};
  ASSERT_EQ(stat(dir_.Path("src/sub/b.txt").c_str(), &src), 0);
  ASSERT_EQ(stat(dir_.Path("out/sub/b.txt").c_str(), &out), 0);
  EXPECT_EQ(out.st_mode & 0777, 0640u);
  EXPECT_EQ(out.st_mtime, src.st_mtime);  // odd seconds come back from the UT field
  std::string out_dir = dir_.Path("out");
  EXPECT_EQ(printed_, "  inflating: " + out_dir + "/a.txt  \n   creating: " + out_dir +
                          "/sub/\n extracting: " + out_dir + "/sub/b.txt  \n");
}

TEST_F(UnzipEngine, TestPrintsEachEntryAndTheSummary) {
  dcl_.test = 1;
  ASSERT_EQ(Run(), kUnzipOk);
  std::string zip = dir_.Path("a.zip");
  EXPECT_EQ(printed_,
            "    testing: a.txt                    OK\n"
            "    testing: sub/                     OK\n"
            "    testing: sub/b.txt                OK\n"
            "No errors detected in compressed data of " + zip + ".\n");
  EXPECT_FALSE(Exists(dir_.Path("out")));
}

TEST_F(UnzipEngine, TestWithNamesCountsTheFilesTested) {
  dcl_.test = 1;
  dcl_.quiet = 1;
  selection_.include = {"a.txt", "zzz"};
  ASSERT_EQ(Run(), kUnzipFind);
  EXPECT_EQ(printed_, "caution: filename not matched:  zzz\nAt least one error was detected in " +
                          dir_.Path("a.zip") + ".\n");
}

TEST_F(UnzipEngine, BadCrcIsAnErrorInTheZipfile) {
  std::string bytes = ReadFile(dir_.Path("a.zip"));
  size_t at = bytes.find("PK\x01\x02");
  ASSERT_NE(at, std::string::npos);
  bytes[at + 16] ^= 0x55;  // the central CRC of a.txt
  size_t local = 0;
  bytes[local + 14] ^= 0x55;  // and the local one, so that only the data disagrees
  WriteFile(dir_.Path("a.zip"), bytes);
  dcl_.test = 1;
  EXPECT_EQ(Run(), kUnzipErr);
  EXPECT_NE(printed_.find("    testing: a.txt                    bad CRC "), std::string::npos)
      << printed_;
  EXPECT_NE(printed_.find("At least one error was detected in"), std::string::npos);
}

// A file whose data fails its check is never left behind: not under its own name when that was
// free, and not over the file it would have replaced.
TEST_F(UnzipEngine, EntryWithBadDataLeavesNothingAndReplacesNothing) {
  std::string bytes = ReadFile(dir_.Path("a.zip"));
  size_t at = bytes.find("PK\x01\x02");
  ASSERT_NE(at, std::string::npos);
  bytes[at + 16] ^= 0x55;  // the central and local CRCs of a.txt
  bytes[14] ^= 0x55;
  WriteFile(dir_.Path("a.zip"), bytes);
  for (bool existing : {false, true}) {
    SCOPED_TRACE(existing ? "over an existing file" : "under a free name");
    std::filesystem::remove_all(dir_.Path("out"));
    if (existing) WriteFile(dir_.Path("out/a.txt"), "old");
    EXPECT_EQ(Run(), kUnzipErr);
    EXPECT_NE(printed_.find("  inflating: " + dir_.Path("out/a.txt")), std::string::npos)
        << printed_;
    EXPECT_NE(printed_.find(" bad CRC "), std::string::npos) << printed_;
    if (existing) {
      EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")), "old");
    } else {
      EXPECT_FALSE(Exists(dir_.Path("out/a.txt")));
    }
    EXPECT_EQ(ReadFile(dir_.Path("out/sub/b.txt")), "bee\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.Path("out")),
                            std::filesystem::directory_iterator()),
              existing ? 2 : 1);  // no temporary file either
  }
}

// Entries small enough to be inflated whole and larger ones that stream come out the same, on
// either side of the limit and of the streaming chunk size.
TEST_F(UnzipEngine, EntriesOfEverySizeComeOutIntact) {
  std::vector<std::pair<std::string, std::string>> files;
  uint32_t seed = 7;
  auto text = [&](size_t size) {
    static const char* const kWords[] = {"alpha ", "beta ", "gamma\n", "delta ", "epsilon "};
    std::string out;
    while (out.size() < size) {
      seed = seed * 1103515245 + 12345;
      out += kWords[(seed >> 16) % 5];
    }
    out.resize(size);
    return out;
  };
  for (size_t size : {size_t{0}, size_t{1}, size_t{65536}, size_t{65537}, size_t{8} << 20,
                      (size_t{8} << 20) + 1}) {
    files.emplace_back("f" + std::to_string(size), text(size));
    WriteFile(dir_.Path("big/" + files.back().first), files.back().second);
  }
  // Streamed and compressible a thousandfold: the inflater holds output back after its last input.
  files.emplace_back("same", std::string((size_t{9} << 20) + 5, 'z'));
  WriteFile(dir_.Path("big/same"), files.back().second);
  ASSERT_EQ(RunIn(dir_.Path("big"), "zip -q -r ../big.zip . && zip -q -0 ../big.zip f1"), 0);
  dcl_.zip_file_name = dir_.Path("big.zip");
  ASSERT_EQ(Run(), kUnzipOk) << printed_;
  for (const auto& [name, contents] : files) {
    EXPECT_EQ(ReadFile(dir_.Path("out/" + name)), contents) << name;
  }
  dcl_.test = 1;
  EXPECT_EQ(Run(), kUnzipOk) << printed_;
}

struct BrokenArchive {
  const char* label;
  std::string contents;
  bool create = true;
  int code = 0;
  const char* message = "";
};

class UnzipBrokenArchive : public UnzipEngine,
                           public ::testing::WithParamInterface<BrokenArchive> {};

TEST_P(UnzipBrokenArchive, FailsWithTheUnzipCodeAndMessage) {
  const BrokenArchive& c = GetParam();
  std::string path = dir_.Path("broken.zip");
  if (c.create) WriteFile(path, c.contents == "TRUNCATED" ? ReadFile(dir_.Path("a.zip")).substr(0, 100)
                                                          : c.contents);
  dcl_.zip_file_name = path;
  EXPECT_EQ(Run(), c.code);
  EXPECT_NE(printed_.find(c.message), std::string::npos) << printed_;
  EXPECT_FALSE(Exists(dir_.Path("out")));
}

const std::string kEmptyArchive = std::string("PK\x05\x06", 4) + std::string(18, '\0');

INSTANTIATE_TEST_SUITE_P(
    Cases, UnzipBrokenArchive,
    ::testing::Values(
        BrokenArchive{"not_a_zip", "hello, world", true, kUnzipNoZip,
                      "End-of-central-directory signature not found."},
        BrokenArchive{"zero_bytes", "", true, kUnzipNoZip, "cannot find zipfile directory in"},
        BrokenArchive{"truncated", "TRUNCATED", true, kUnzipNoZip, "period.\n"},
        BrokenArchive{"missing", "", false, kUnzipNoZip, "UnZip DLL:  cannot find either "},
        BrokenArchive{"empty", kEmptyArchive, true, kUnzipWarn, "]:  zipfile is empty\n"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST_F(UnzipEngine, NeverOverwritesWithoutOverwriteOrPrompt) {
  WriteFile(dir_.Path("out/a.txt"), "mine");
  dcl_.overwrite = 0;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")), "mine");
  EXPECT_NE(printed_.find("Target file exists.\nSkipping " + dir_.Path("out/a.txt") + "\n"),
            std::string::npos);
  EXPECT_TRUE(asked_.empty());
}

struct ReplaceCase {
  int answer;
  bool a_replaced;
  bool b_replaced;
  int asked;
};

class UnzipReplace : public UnzipEngine, public ::testing::WithParamInterface<ReplaceCase> {};

TEST_P(UnzipReplace, AnswersDecideThisAndLaterFiles) {
  WriteFile(dir_.Path("out/a.txt"), "mine");
  WriteFile(dir_.Path("out/sub/b.txt"), "mine");
  dcl_.overwrite = 0;
  dcl_.prompt_to_overwrite = 1;
  replace_answer_ = GetParam().answer;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")) == kText, GetParam().a_replaced);
  EXPECT_EQ(ReadFile(dir_.Path("out/sub/b.txt")) == "bee\n", GetParam().b_replaced);
  EXPECT_EQ(static_cast<int>(asked_.size()), GetParam().asked);
  if (!asked_.empty()) {
    EXPECT_EQ(asked_[0], dir_.Path("out/a.txt"));
  }
}

INSTANTIATE_TEST_SUITE_P(Answers, UnzipReplace,
                         ::testing::Values(ReplaceCase{kReplaceNo, false, false, 2},
                                           ReplaceCase{kReplaceText, true, true, 2},
                                           ReplaceCase{kReplaceYes, true, true, 2},
                                           ReplaceCase{kReplaceAll, true, true, 1},
                                           ReplaceCase{kReplaceNone, false, false, 1},
                                           ReplaceCase{kReplaceHelp, true, true, 2}));

TEST_F(UnzipEngine, RenameAnswerExtractsUnderTheNewName) {
  WriteFile(dir_.Path("out/a.txt"), "mine");
  dcl_.overwrite = 0;
  dcl_.prompt_to_overwrite = 1;
  callbacks_.replace = [&](std::string& name) {
    if (name != dir_.Path("out/a.txt")) return kReplaceNo;
    name = dir_.Path("out/renamed.txt");
    return kReplaceRename;
  };
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")), "mine");
  EXPECT_EQ(ReadFile(dir_.Path("out/renamed.txt")), kText);
}

TEST_F(UnzipEngine, ExtractOnlyNewerSkipsFilesThatAreNotOlder) {
  WriteFile(dir_.Path("out/a.txt"), "newer");
  WriteFile(dir_.Path("out/sub/b.txt"), "older");
  ASSERT_EQ(RunIn(dir_.Path("out"), "touch -d '2020-01-01' sub/b.txt"), 0);
  dcl_.extract_only_newer = 1;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")), "newer");
  EXPECT_EQ(ReadFile(dir_.Path("out/sub/b.txt")), "bee\n");
}

TEST_F(UnzipEngine, FreshenSkipsFilesThatDoNotExist) {
  WriteFile(dir_.Path("out/sub/b.txt"), "older");
  ASSERT_EQ(RunIn(dir_.Path("out"), "touch -d '2020-01-01' sub/b.txt"), 0);
  dcl_.freshen = 1;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_FALSE(Exists(dir_.Path("out/a.txt")));
  EXPECT_EQ(ReadFile(dir_.Path("out/sub/b.txt")), "bee\n");
}

TEST_F(UnzipEngine, JunkedFoldersAndUnderscoresChangeTheNames) {
  WriteFile(dir_.Path("src/with space.txt"), "s");
  ASSERT_EQ(RunIn(dir_.Path("src"), "zip -r ../a.zip 'with space.txt'"), 0);
  dcl_.honor_directories = 0;
  dcl_.space_to_underscore = 1;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_TRUE(Exists(dir_.Path("out/b.txt")));
  EXPECT_TRUE(Exists(dir_.Path("out/with_space.txt")));
  EXPECT_FALSE(Exists(dir_.Path("out/sub")));
}

TEST_F(UnzipEngine, ServiceCallbackStopsTheRunWith80) {
  int calls = 0;
  callbacks_.service = [&](std::string_view name, uint64_t size) {
    ++calls;
    EXPECT_EQ(name, "a.txt");
    EXPECT_EQ(size, kText.size());
    return 1;
  };
  EXPECT_EQ(Run(), kUnzipCtrlC);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(Exists(dir_.Path("out/sub")));
}

TEST_F(UnzipEngine, MissingCallbacksAreASevereError) {
  callbacks_.replace = nullptr;
  EXPECT_EQ(Run(), kUnzipBadErr);
}

TEST_F(UnzipEngine, ListingSendsEveryEntryToTheMessageCallback) {
  dcl_.list = 1;
  std::vector<ListedEntry> listed;
  callbacks_.message = [&](const ListedEntry& entry) { listed.push_back(entry); };
  ASSERT_EQ(Run(), kUnzipOk);
  ASSERT_EQ(listed.size(), 3u);
  EXPECT_EQ(listed[0].name, "a.txt");
  EXPECT_EQ(listed[0].size, kText.size());
  EXPECT_EQ(listed[0].method, "Defl:N");
  EXPECT_EQ(listed[0].compression_factor, 99u);
  EXPECT_EQ(listed[0].crypt, ' ');
  EXPECT_EQ(listed[0].year, 21u);
  EXPECT_EQ(listed[0].month, 3u);
  EXPECT_EQ(listed[0].day, 4u);
  EXPECT_EQ(listed[0].hour, 5u);
  EXPECT_EQ(listed[0].minute, 6u);
  EXPECT_EQ(listed[2].method, "Stored");
  EXPECT_FALSE(Exists(dir_.Path("out")));
}

TEST_F(UnzipEngine, ConvertsLineFeedsOfTextEntries) {
  WriteFile(dir_.Path("src/t.txt"), "one\ntwo\r\nthree\n");
  ASSERT_EQ(RunIn(dir_.Path("src"), "zip ../t.zip t.txt"), 0);
  dcl_.zip_file_name = dir_.Path("t.zip");
  dcl_.convert_text = 1;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/t.txt")), "one\r\ntwo\r\nthree\r\n");
  EXPECT_NE(printed_.find("[text]"), std::string::npos);
}

}  // namespace
}  // namespace pelmora::archive

namespace pelmora::archive {
namespace {

// Files are finished on worker threads while later entries are decoded, yet every message and
// question comes from the calling thread in entry order, each file's line completed before the
// next entry's, with small files, a streamed one and files that exist (asked about) mixed.
class UnzipWriteBehind : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < 40; ++i) {
      std::string name = "d" + std::to_string(i % 3) + "/f" + std::to_string(i) + ".txt";
      entries_.push_back({name, std::string(100 + i * 37, static_cast<char>('a' + i % 26))});
      if (i == 17) entries_.push_back({"big.bin", std::string((9 << 20) + 5, 'z')});
      if (i == 23) entries_.push_back({"fails.bin", std::string(200000, 'f')});
    }
    ASSERT_TRUE(testing::BuildArchive(dir_.Path("w.zip"), entries_));
    dcl_.zip_file_name = dir_.Path("w.zip");
    dcl_.extract_dir = dir_.Path("out");
    dcl_.honor_directories = 1;
    dcl_.prompt_to_overwrite = 1;
    callbacks_.print = [this](std::string_view text) {
      if (std::this_thread::get_id() != caller_) log_ += "[another thread]";
      log_ += text;
      return 0;
    };
    callbacks_.replace = [this](std::string& name) {
      if (std::this_thread::get_id() != caller_) log_ += "[another thread]";
      log_ += "[replace " + name + "]";
      return kReplaceYes;
    };
  }

  // The log a one-file-at-a-time run gives; `failing` names the entry whose write fails.
  std::string Expected(const std::vector<std::string>& existing, const std::string& failing) {
    std::string log;
    for (const TestEntry& entry : entries_) {
      std::string path = dir_.Path("out/" + entry.name);
      for (const std::string& name : existing) {
        if (name == entry.name) log += "[replace " + path + "]";
      }
      std::string padded = path;
      if (padded.size() < 22) padded.resize(22, ' ');
      log += "  inflating: " + padded + "  ";
      log += entry.name == failing
                 ? "\nerror:  write error (disk full?) for " + entry.name + "\n"
                 : "\n";
    }
    return log;
  }

  ScratchFolder dir_;
  std::vector<TestEntry> entries_;
  DecompressionControl dcl_;
  UnzipCallbacks callbacks_;
  std::string log_;
  std::thread::id caller_ = std::this_thread::get_id();
};

TEST_F(UnzipWriteBehind, MessagesAndQuestionsKeepEntryOrderOnTheCallingThread) {
  WriteFile(dir_.Path("out/d2/f5.txt"), "old");
  WriteFile(dir_.Path("out/d0/f30.txt"), "old");
  ASSERT_EQ(RunUnzip(dcl_, callbacks_), kUnzipOk);
  EXPECT_EQ(log_, Expected({"d2/f5.txt", "d0/f30.txt"}, ""));
  for (const TestEntry& entry : entries_) {
    EXPECT_EQ(ReadFile(dir_.Path("out/" + entry.name)), entry.data) << entry.name;
  }
}

// A file whose writing fails on a worker (beyond the file size limit) is reported in its place,
// left out, and the run goes on to the end with the disk error's code.
TEST_F(UnzipWriteBehind, AFailedWriteIsReportedInItsPlace) {
  int pipe_fds[2];
  ASSERT_EQ(::pipe(pipe_fds), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(pipe_fds[0]);
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{.rlim_cur = 150000, .rlim_max = RLIM_INFINITY};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    entries_.erase(entries_.begin() + 18);  // big.bin: no room for it either
    ASSERT_TRUE(testing::BuildArchive(dir_.Path("w.zip"), entries_));  // small enough
    int rc = RunUnzip(dcl_, callbacks_);
    std::string report = std::to_string(rc) + "|" + log_ + "|" +
                         (Exists(dir_.Path("out/fails.bin")) ? "left" : "gone");
    (void)!::write(pipe_fds[1], report.data(), report.size());
    ::_exit(0);
  }
  ::close(pipe_fds[1]);
  std::string report;
  char buffer[4096];
  for (ssize_t n; (n = ::read(pipe_fds[0], buffer, sizeof buffer)) > 0;) report.append(buffer, n);
  ::close(pipe_fds[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  entries_.erase(entries_.begin() + 18);
  EXPECT_EQ(report,
            std::to_string(kUnzipDisk) + "|" + Expected({}, "fails.bin") + "|gone");
}

// Folders reached, left and reached again in any order, deeper than the folders kept open between
// entries, and a file that a later entry needs as a folder while it may still be being written:
// the same files and messages as one entry at a time.
TEST(UnzipFolders, WalksAnyOrderAndDepthAndRefusesAFileAsAFolder) {
  ScratchFolder dir;
  std::string deep;
  for (int i = 0; i < 70; ++i) deep += "d" + std::to_string(i) + "/";
  std::vector<TestEntry> entries = {{"p/q/r/1.txt", "1"},
                                    {"p/2.txt", "2"},
                                    {deep + "3.txt", "3"},
                                    {"p/q/4.txt", "4"},
                                    {deep.substr(0, 40) + "5.txt", "5"},
                                    {"x", "a file"},
                                    {"x/6.txt", "6"},
                                    {"7.txt", "7"}};
  ASSERT_TRUE(testing::BuildArchive(dir.Path("f.zip"), entries));
  DecompressionControl dcl;
  dcl.zip_file_name = dir.Path("f.zip");
  dcl.extract_dir = dir.Path("out");
  dcl.honor_directories = 1;
  dcl.overwrite = 1;
  std::string printed;
  UnzipCallbacks callbacks = testing::Recording(printed);
  EXPECT_EQ(RunUnzip(dcl, callbacks), kUnzipErr);
  std::string out = dir.Path("out");
  std::string x = out + "/x";
  x.resize(std::max<size_t>(x.size(), 22), ' ');
  EXPECT_NE(printed.find("  inflating: " + x + "  \ncheckdir error:  a component of " + out +
                         "/x/6.txt exists but is not directory\n                 unable to "
                         "process x/6.txt.\n  inflating: " +
                         out + "/7.txt"),
            std::string::npos)
      << printed;
  for (const TestEntry& entry : entries) {
    if (entry.name == "x/6.txt") continue;
    EXPECT_EQ(ReadFile(dir.Path("out/" + entry.name)), entry.data) << entry.name;
  }
}

}  // namespace
}  // namespace pelmora::archive

// The unzip engine with files finished on worker threads: messages and questions stay in entry
// order on the calling thread, a failed write is reported in its place, and folders are walked in
// any order and depth.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "pelmora/archive/internal/test_archives.h"
#include "pelmora/archive/unzip_engine.h"

namespace pelmora::archive {
namespace {

using testing::Exists;
using testing::ReadFile;
using testing::ScratchFolder;
using testing::TestEntry;
using testing::WriteFile;

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

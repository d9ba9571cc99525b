// Hostile archives and passwords: traversal, absolute names, links, bombs, lying sizes, long
// names, and every answer of the password callback.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "pelmora/archive/internal/test_archives.h"
#include "pelmora/archive/unzip_engine.h"
#include "pelmora/testing/fault_file_api.h"

namespace pelmora::archive {
namespace {

using testing::BuildArchive;
using testing::Exists;
using testing::ReadFile;
using testing::RunIn;
using testing::ScratchFolder;
using testing::TestEntry;
using testing::WriteFile;

std::vector<std::string> Names(const std::string& folder) {
  return pelmora::testing::NamesIn(folder);
}

class UnzipSafety : public ::testing::Test {
 protected:
  void SetUp() override {
    dcl_.zip_file_name = dir_.Path("h.zip");
    dcl_.extract_dir = dir_.Path("out/in");
    dcl_.honor_directories = 1;
    dcl_.overwrite = 1;
    callbacks_.print = [this](std::string_view text) {
      printed_ += text;
      return 0;
    };
    callbacks_.replace = [](std::string&) { return kReplaceYes; };
  }

  int Run(const std::vector<TestEntry>& entries) {
    EXPECT_TRUE(BuildArchive(dcl_.zip_file_name, entries));
    return RunUnzip(dcl_, callbacks_, {}, limits_);
  }

  ScratchFolder dir_;
  DecompressionControl dcl_;
  UnzipCallbacks callbacks_;
  ExtractLimits limits_;
  std::string printed_;
};

TEST_F(UnzipSafety, ParentComponentsAreSkippedWithAWarning) {
  EXPECT_EQ(Run({{"../evil.txt", "x"}, {"a/../../../evil2.txt", "y"}}), kUnzipWarn);
  EXPECT_EQ(Names(dir_.Path("out")), std::vector<std::string>{"in"});
  EXPECT_EQ(ReadFile(dir_.Path("out/in/evil.txt")), "x");
  EXPECT_EQ(ReadFile(dir_.Path("out/in/a/evil2.txt")), "y");
  EXPECT_NE(printed_.find("warning:  skipped \"../\" path component(s) in ../evil.txt\n"),
            std::string::npos);
}

TEST_F(UnzipSafety, AbsoluteNamesAreStrippedWithAWarning) {
  std::string outside = dir_.Path("abs.txt");
  EXPECT_EQ(Run({{outside, "x"}}), kUnzipWarn);
  EXPECT_FALSE(Exists(outside));
  EXPECT_EQ(ReadFile(dir_.Path("out/in") + outside), "x");
  EXPECT_NE(printed_.find("warning:  stripped absolute path spec from " + outside + "\n"),
            std::string::npos);
}

TEST_F(UnzipSafety, LinksPointingOutsideAreNotCreated) {
  EXPECT_EQ(Run({{"up", "../../x", 0120777}, {"abs", "/etc", 0120777}, {"ok", "a/b", 0120777}}),
            kUnzipWarn);
  EXPECT_FALSE(Exists(dir_.Path("out/in/up")));
  EXPECT_FALSE(Exists(dir_.Path("out/in/abs")));
  EXPECT_EQ(std::filesystem::read_symlink(dir_.Path("out/in/ok")).string(), "a/b");
  EXPECT_NE(printed_.find("symbolic link " + dir_.Path("out/in/up") + " -> ../../x points "
                          "outside the extraction folder; not created\n"),
            std::string::npos);
}

TEST_F(UnzipSafety, NothingIsWrittenThroughALinkFromAnEarlierEntry) {
  std::filesystem::create_directories(dir_.Path("out/in/real"));
  EXPECT_EQ(Run({{"l", "real", 0120777}, {"l/file.txt", "x"}}), kUnzipWarn);
  EXPECT_FALSE(Exists(dir_.Path("out/in/real/file.txt")));
  EXPECT_NE(printed_.find("lies behind a symbolic link; skipped"), std::string::npos);
}

TEST_F(UnzipSafety, NothingIsWrittenThroughAFolderReplacedByALink) {
  std::filesystem::create_directories(dir_.Path("out/in"));
  std::filesystem::create_directories(dir_.Path("elsewhere"));
  std::filesystem::create_directory_symlink(dir_.Path("elsewhere"), dir_.Path("out/in/sub"));
  EXPECT_EQ(Run({{"sub/file.txt", "x"}}), kUnzipWarn);
  EXPECT_TRUE(Names(dir_.Path("elsewhere")).empty());
}

TEST_F(UnzipSafety, ZipBombIsStoppedWithNothingLeftBehind) {
  limits_.ratio_floor = 1 << 20;
  limits_.max_ratio = 50;
  EXPECT_EQ(Run({{"bomb.bin", std::string(32 << 20, '\0')}, {"after.txt", "x"}}),
            kUnzipBadErr);
  EXPECT_TRUE(Names(dir_.Path("out/in")).empty());
  EXPECT_NE(printed_.find("error:  bomb.bin expands beyond the extraction limits"),
            std::string::npos);
}

TEST_F(UnzipSafety, TotalSizeLimitStopsTheRun) {
  limits_.max_total_bytes = 1000;
  EXPECT_EQ(Run({{"a.txt", std::string(600, 'a')}, {"b.txt", std::string(600, 'b')}}),
            kUnzipBadErr);
  EXPECT_EQ(Names(dir_.Path("out/in")), std::vector<std::string>{"a.txt"});
}

TEST_F(UnzipSafety, LyingSizeIsRefusedWithoutAFile) {
  ASSERT_TRUE(BuildArchive(dcl_.zip_file_name, {{"big.txt", std::string(100000, 'z')}}));
  std::string bytes = ReadFile(dcl_.zip_file_name);
  bytes[22] = 10, bytes[23] = 0, bytes[24] = 0, bytes[25] = 0;  // local uncompressed size
  size_t central = bytes.find("PK\x01\x02");
  bytes[central + 24] = 10, bytes[central + 25] = 0, bytes[central + 26] = 0,
  bytes[central + 27] = 0;
  WriteFile(dcl_.zip_file_name, bytes);
  EXPECT_EQ(RunUnzip(dcl_, callbacks_), kUnzipErr);
  EXPECT_TRUE(Names(dir_.Path("out/in")).empty());
  EXPECT_NE(printed_.find("error:  invalid compressed data to inflate big.txt"),
            std::string::npos);
}

TEST_F(UnzipSafety, OverLongNameIsRefusedCleanly) {
  EXPECT_EQ(Run({{std::string(300, 'n'), "x"}, {"ok.txt", "y"}}), kUnzipDisk);
  EXPECT_EQ(Names(dir_.Path("out/in")), std::vector<std::string>{"ok.txt"});
}

// Passwords: an archive of two encrypted files made by the zip program.
class UnzipPassword : public UnzipSafety {
 protected:
  void SetUp() override {
    UnzipSafety::SetUp();
    WriteFile(dir_.Path("src/a.txt"), std::string(500, 'a'));
    WriteFile(dir_.Path("src/b.txt"), "bee");
    ASSERT_TRUE(testing::MakeEncrypted(dir_.Path("src"), "zip -P secret ../h.zip a.txt b.txt",
                                       dcl_.zip_file_name, {"wrong", "nope"}));
  }

  // Answers the password callback from `answers` in turn, recording the prompts.
  int RunWith(std::vector<std::pair<int, std::string>> answers) {
    callbacks_.password = [this, answers](std::string& answer, std::string_view prompt,
                                          std::string_view name) {
      prompts_.push_back(std::string(prompt) + std::string(name));
      size_t i = std::min(prompts_.size() - 1, answers.size() - 1);
      answer = answers[i].second;
      return answers[i].first;
    };
    return RunUnzip(dcl_, callbacks_);
  }

  std::vector<std::string> prompts_;
};

TEST_F(UnzipPassword, RightPasswordIsAskedOnceAndKept) {
  EXPECT_EQ(RunWith({{kPasswordEntered, "secret"}}), kUnzipOk) << printed_;
  EXPECT_EQ(prompts_, std::vector<std::string>{"Enter password for: a.txt"});
  EXPECT_EQ(ReadFile(dir_.Path("out/in/b.txt")), "bee");
}

TEST_F(UnzipPassword, WrongThenRightPasswordIsAskedAgain) {
  EXPECT_EQ(RunWith({{kPasswordEntered, "wrong"}, {kPasswordEntered, "secret"}}), kUnzipOk);
  EXPECT_EQ(prompts_, (std::vector<std::string>{"Enter password for: a.txt",
                                                "Password incorrect--reenter: a.txt"}));
}

TEST_F(UnzipPassword, CancelSkipsEachEntryAndEndsWith82) {
  dcl_.test = 1;
  EXPECT_EQ(RunWith({{kPasswordCancel, ""}}), kUnzipBadPassword);
  EXPECT_EQ(prompts_.size(), 2u);
  EXPECT_NE(printed_.find("   skipping: a.txt                   incorrect password\n"),
            std::string::npos);
  EXPECT_NE(printed_.find("At least one warning-error was detected in " + dcl_.zip_file_name +
                          ".\n2 files skipped because of incorrect password.\n"),
            std::string::npos) << printed_;
}

TEST_F(UnzipPassword, CancelAllStopsAsking) {
  EXPECT_EQ(RunWith({{kPasswordCancelAll, ""}}), kUnzipBadPassword);
  EXPECT_EQ(prompts_.size(), 1u);
  EXPECT_TRUE(Names(dir_.Path("out/in")).empty());
}

TEST_F(UnzipPassword, ErrorAnswerIsAPasswordFetchFailure) {
  EXPECT_EQ(RunWith({{kPasswordError, ""}}), kUnzipMem2);
  EXPECT_NE(printed_.find("   skipping: a.txt                   unable to get password\n"),
            std::string::npos);
}

TEST_F(UnzipPassword, ThreeWrongPasswordsGiveUpOnTheEntry) {
  EXPECT_EQ(RunWith({{kPasswordEntered, "nope"}}), kUnzipBadPassword);
  EXPECT_EQ(prompts_.size(), 6u);
}

}  // namespace
}  // namespace pelmora::archive
